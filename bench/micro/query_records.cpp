// Answers into records: a 1 000-node page of folder assets and a 100-account answer, each beside
// the JSON parse of the same bytes alone. The difference, per node, is what the resource layer
// (validation, error scan, path walk, Guid and integer reads) costs on top of the parser.
//
//   Parse*   JSONParseToDictionaryValue only
//   Records* the getter on an already loaded resource (records only)
//   Load*    SetServerResponse (validate, parse, scan for errors) then the getter

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>

#include "kelcore/Dictionary.h"
#include "kelnet/Response.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"

namespace {

using kelcore::classref::InterfaceRef;

constexpr int kFolderNodes = 100;
constexpr int kFileNodes = 900;
constexpr int kAccountNodes = 100;

std::string GuidText(unsigned n) {
  char text[40];
  std::snprintf(text, sizeof text, "%08x-%04x-4%03x-8%03x-%012x", 0x9e3779b9u * (n + 1), n & 0xffff, (n * 7) & 0xfff,
                (n * 13) & 0xfff, n * 2654435761u);
  return text;
}

std::string Page(const char* alias, int nodes, unsigned base) {
  std::string text = std::string("\"") + alias + "\":{\"nodes\":[";
  for (int i = 0; i < nodes; ++i) text += (i ? ",{\"id\":\"" : "{\"id\":\"") + GuidText(base + i) + "\"}";
  return text + R"(],"pageInfo":{"endCursor":"YzE6Zm9sZGVyOjk5OQ","hasNextPage":true}})";
}

const std::string& AssetsAnswer() {
  static const std::string text =
      "{\"data\":{" + Page("files", kFileNodes, 0) + "," + Page("folders", kFolderNodes, 5000) + "}}";
  return text;
}

const std::string& AccountsAnswer() {
  static const std::string text = [] {
    std::string out = R"({"data":{"me":{"id":")" + GuidText(1) + R"(","accounts":{"nodes":[)";
    for (int i = 0; i < kAccountNodes; ++i) {
      char node[200];
      std::snprintf(node, sizeof node,
                    R"(%s{"account":{"__typename":"Account","id":"%s","displayName":"Studio %03d","version":%d}})",
                    i ? "," : "", GuidText(100 + i).c_str(), i, i % 9);
      out += node;
    }
    return out + "]}}}}";
  }();
  return text;
}

std::shared_ptr<kelnet::Response> Answer(const std::string& body) {
  return std::make_shared<kelnet::Response>(200, kelnet::HeaderMap{{"content-type", "application/json; charset=utf-8"}},
                                            body);
}

void Parse(benchmark::State& state, const std::string& text, int nodes) {
  for (auto _ : state) {
    auto value = kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size());
    benchmark::DoNotOptimize(value);
  }
  state.SetItemsProcessed(state.iterations() * nodes);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

template <class Resource, class Getter>
void Records(benchmark::State& state, const std::string& text, int nodes, Getter get) {
  auto resource = Resource::CreateClassRef();
  if (resource->SetServerResponse(Answer(text), {}) != 0) state.SkipWithError("answer refused");
  for (auto _ : state) benchmark::DoNotOptimize(get(*resource));
  state.SetItemsProcessed(state.iterations() * nodes);
}

template <class Resource, class Getter>
void Load(benchmark::State& state, const std::string& text, int nodes, Getter get) {
  const auto response = Answer(text);
  for (auto _ : state) {
    auto resource = Resource::CreateClassRef();
    if (resource->SetServerResponse(response, {}) != 0) state.SkipWithError("answer refused");
    benchmark::DoNotOptimize(get(*resource));
  }
  state.SetItemsProcessed(state.iterations() * nodes);
}

const auto kAssets = [](const ostriolib::OstrioAssets& r) { return r.GetFolderAssets(); };
const auto kAccounts = [](const ostriolib::OstrioAccountList& r) { return r.GetAccountList(); };

void ParseAssets(benchmark::State& state) { Parse(state, AssetsAnswer(), kFolderNodes + kFileNodes); }
void RecordsAssets(benchmark::State& state) {
  Records<ostriolib::OstrioAssets>(state, AssetsAnswer(), kFolderNodes + kFileNodes, kAssets);
}
void LoadAssets(benchmark::State& state) {
  Load<ostriolib::OstrioAssets>(state, AssetsAnswer(), kFolderNodes + kFileNodes, kAssets);
}
void ParseAccounts(benchmark::State& state) { Parse(state, AccountsAnswer(), kAccountNodes); }
void RecordsAccounts(benchmark::State& state) {
  Records<ostriolib::OstrioAccountList>(state, AccountsAnswer(), kAccountNodes, kAccounts);
}
void LoadAccounts(benchmark::State& state) {
  Load<ostriolib::OstrioAccountList>(state, AccountsAnswer(), kAccountNodes, kAccounts);
}

BENCHMARK(ParseAssets);
BENCHMARK(RecordsAssets);
BENCHMARK(LoadAssets);
BENCHMARK(ParseAccounts);
BENCHMARK(RecordsAccounts);
BENCHMARK(LoadAccounts);

}  // namespace

BENCHMARK_MAIN();

// Cost of creating ImmutableStrings: mostly texts already interned (keys, type names), with a
// share of fresh ones (ids) that are created and released again.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "kelcore/ImmutableString.h"

namespace {

const std::vector<std::string>& Repeated() {
  static const std::vector<std::string> texts = [] {
    std::vector<std::string> result;
    for (const char* key : {"id", "name", "__typename", "pageInfo", "hasNextPage", "endCursor", "totalCount",
                            "nodes", "VideoAsset", "Folder", "createdAt", "fileSize", "duration", "thumbnail"}) {
      result.emplace_back(key);
    }
    return result;
  }();
  return texts;
}

void Interning(benchmark::State& state) {
  // Keep the repeated texts alive so they measure the lookup, as they do in a running client.
  static const std::vector<kelcore::ImmutableString> held(Repeated().begin(), Repeated().end());
  const auto& repeated = Repeated();
  std::string fresh = "6f9619ff-8b86-d011-b42d-" + std::to_string(state.thread_index()) + "-000000000000";
  std::size_t i = 0;
  for (auto _ : state) {
    if (i % 4 == 3) {
      // A text no one else holds: inserted, then released (removed) at the end of the scope.
      fresh[fresh.size() - 1 - i % 11] = static_cast<char>('0' + i % 10);
      fresh[fresh.size() - 2 - i % 7] = static_cast<char>('a' + i % 6);
      kelcore::ImmutableString s(fresh);
      benchmark::DoNotOptimize(s.c_str());
    } else {
      kelcore::ImmutableString s(repeated[i % repeated.size()]);
      benchmark::DoNotOptimize(s.c_str());
    }
    ++i;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  benchmark::DoNotOptimize(held.size());
}

void CopyAndCompare(benchmark::State& state) {
  static const kelcore::ImmutableString shared("__typename");
  for (auto _ : state) {
    kelcore::ImmutableString copy = shared;
    benchmark::DoNotOptimize(copy == shared);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

}  // namespace

BENCHMARK(Interning)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(CopyAndCompare)->Threads(1)->Threads(2)->UseRealTime();

BENCHMARK_MAIN();

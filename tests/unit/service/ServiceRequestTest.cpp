// What each operation puts on the wire: endpoint per environment, body byte for byte, the common
// headers, the bearer token and where it may go. Query texts are checked against the emulator's
// list of known documents, the same list the emulator compares live requests with.

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>

#include "ServiceFixture.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

namespace service_test {
namespace {

using kelcore::U8Str;
using kelcore::utility::Guid;
using ostriolib::OstrioDictionaryResource;
using Start = std::function<kelcore::async::Future<void>(const InterfaceRef<IOstrioService>&)>;

const Guid kAccount("0a0a0a0a-0000-4000-8000-00000000000a");
const Guid kWorkspace("0b0b0b0b-0000-4000-8000-00000000000b");
const Guid kFolder("0f0f0f0f-0000-4000-8000-00000000000f");

template <class T>
kelcore::async::Future<void> Done(const kelcore::async::Future<T>& future) {
  return future.Then([](const kelcore::async::Future<T>&) {});
}

U8Str Text(const char* text) { return kelcore::ToU8Str(text); }

const std::map<std::string, std::string>& KnownQueries() {
  static const std::map<std::string, std::string> known = [] {
    std::ifstream file(std::string(OSTRIO_EMULATOR_DIR) + "/lib/knownQueries.js");
    std::stringstream text;
    text << file.rdbuf();
    const std::string source = text.str();
    std::map<std::string, std::string> found;
    const std::regex entry(R"re((\w+):\s*\n\s*"([^"]*)")re");
    for (std::sregex_iterator it(source.begin(), source.end(), entry), end; it != end; ++it) {
      found[(*it)[1]] = (*it)[2];
    }
    return found;
  }();
  return known;
}

std::size_t HeaderCount(const FakeRequestPtr& request, std::string_view name) {
  std::size_t count = 0;
  for (const auto& [key, value] : request->headers) count += key.View() == name;
  return count;
}

struct WireCase {
  const char* name;
  Start start;
  const char* knownQuery;  // the document, by its name in the emulator's list
  const char* variables;   // null: the body has no "variables"
};

TEST_F(ServiceFixture, EveryOperationSendsItsDocumentAndVariablesExactly) {
  using namespace ostriolib;
  const std::string account = kAccount.ToString(), workspace = kWorkspace.ToString(), folder = kFolder.ToString();
  const std::string filters = R"("queryFiles":{"assetType":"FILE","folderId":")" + folder +
                              R"("},"queryFolders":{"assetType":"FOLDER","folderId":")" + folder + R"("}})";
  const std::vector<WireCase> cases = {
      {"user", [](auto& s) { return Done(OstrioUser::LoadUser(s)); }, "CurrentUser", nullptr},
      {"accounts", [](auto& s) { return Done(OstrioAccountList::LoadAccountList(s)); }, "Accounts",
       R"({"page":{"first":100}})"},
      {"workspaces, first page", [](auto& s) { return Done(OstrioWorkspaceList::LoadWorkspaceList(s, kAccount, 25, {})); },
       "WorkspacesByAccountID", R"({"page":{"first":25},"accountID":")"},
      {"workspaces, next page",
       [](auto& s) { return Done(OstrioWorkspaceList::LoadWorkspaceList(s, kAccount, 25, Text("Y3Vy"))); },
       "WorkspacesByAccountID", R"({"page":{"first":25,"after":"Y3Vy"},"accountID":")"},
      {"workspace count", [](auto& s) { return Done(OstrioWorkspaceList::GetWorkspaceCount(s, kAccount)); },
       "WorkspaceCountByAccountID", R"({"page":{"first":0},"accountID":")"},
      {"projects", [](auto& s) { return Done(OstrioProjectList::LoadProjectList(s, kWorkspace, 10, Text("p2"))); },
       "ProjectsByWorkspaceID", R"({"page":{"first":10,"after":"p2"},"workspaceID":")"},
      {"project count", [](auto& s) { return Done(OstrioProjectList::GetProjectCount(s, kWorkspace)); },
       "ProjectCountByWorkspaceID", R"({"page":{"first":0},"workspaceID":")"},
      {"assets, files only",
       [](auto& s) { return Done(OstrioAssets::LoadAssets(s, kFolder, 0, Text("ignored"), 20, Text("f1"))); },
       "GetFilesAndFolders", R"({"pageFiles":{"first":20,"after":"f1"},"pageFolders":{"first":0,"after":"ignored"},)"},
      {"asset counts", [](auto& s) { return Done(OstrioAssets::GetAssetCounts(s, kFolder)); },
       "GetAssetCountsByFolderID", R"({"page":{"first":0},)"},
  };
  const std::map<std::string, std::string> ids = {{"WorkspacesByAccountID", account + "\"}"},
                                                  {"WorkspaceCountByAccountID", account + "\"}"},
                                                  {"ProjectsByWorkspaceID", workspace + "\"}"},
                                                  {"ProjectCountByWorkspaceID", workspace + "\"}"},
                                                  {"GetFilesAndFolders", filters},
                                                  {"GetAssetCountsByFolderID", filters}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(KnownQueries().count(c.knownQuery)) << "no document named " << c.knownQuery;
    auto done = c.start(service);
    auto request = Answer(R"({"data":{}})");
    ASSERT_TRUE(request);
    std::string expected = R"({"query":")" + KnownQueries().at(c.knownQuery) + "\"";
    if (c.variables) {
      const auto tail = ids.find(c.knownQuery);
      expected += std::string(",\"variables\":") + c.variables + (tail == ids.end() ? "" : tail->second);
    }
    expected += "}";
    EXPECT_EQ(request->body->View(), expected);
    EXPECT_EQ(request->url, "https://api.ostrio.test/graphql");
    for (const char* name : {"content-type", "authorization", "apollographql-client-name",
                             "apollographql-client-version", "x-preview-environment"}) {
      EXPECT_EQ(HeaderCount(request, name), 1u) << name;
    }
    EXPECT_EQ(request->Header("content-type"), "application/json; charset=utf-8");
    EXPECT_EQ(request->Header("authorization"), "Bearer tok");
    Settle(done);
  }
}

struct HeaderCase {
  ostriolib::EnvironmentType environment;
  const char* clientId;
  const char* preview;
  const char* token;
  std::string url;
  const char* name;
  const char* version;        // null: no version header
  const char* previewHeader;  // null: no preview header
  const char* authorization;
};

TEST_F(ServiceFixture, EndpointAndCommonHeadersFollowEnvironmentClientIdAndToken) {
  const std::string production = "https://api" + std::string(ostriolib::kProdDomain.View()) + "/graphql";
  const std::vector<HeaderCase> cases = {
      {ostriolib::EnvironmentType(0), "Editor", "pv", "tok", production, "Editor", nullptr, nullptr, "Bearer tok"},
      {ostriolib::EnvironmentType(1), "Name/Extra/Version", "pv", "Bearer abc", "https://api.staging.test/graphql",
       "Name", "Version", nullptr, "Bearer abc"},
      {ostriolib::EnvironmentType(2), "a+b/1.2", "", "t", "https://api.ostrio.test/graphql", "a+b", "1.2", nullptr,
       "Bearer t"},
      {ostriolib::EnvironmentType(2), "a+b/1.2", "pv", "t", "https://api.ostrio.test/graphql", "a+b", "1.2", "pv",
       "Bearer t"},
      {ostriolib::EnvironmentType(7), "x/y", "pv", "t", production, "x", "y", nullptr, "Bearer t"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clientId + std::string(" env ") + std::to_string(c.environment));
    auto other = MakeService(c.environment, c.clientId, c.preview, c.token);
    auto done = Done(OstrioDictionaryResource::GenericQuery(other, Text("{ me { id } }"), {}));
    auto request = Answer(R"({"data":{}})");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->url, c.url);
    EXPECT_EQ(request->body->View(), R"({"query":"{ me { id } }"})");
    EXPECT_EQ(request->Header("apollographql-client-name"), c.name);
    EXPECT_EQ(HeaderCount(request, "apollographql-client-version"), c.version ? 1u : 0u);
    if (c.version) {
      EXPECT_EQ(request->Header("apollographql-client-version"), c.version);
    }
    EXPECT_EQ(HeaderCount(request, "x-preview-environment"), c.previewHeader ? 1u : 0u);
    if (c.previewHeader) {
      EXPECT_EQ(request->Header("x-preview-environment"), c.previewHeader);
    }
    EXPECT_EQ(request->Header("authorization"), c.authorization);
    Settle(done);
  }
}

TEST_F(ServiceFixture, ANewTokenReachesTheNextRequestAndTheSameTokenChangesNothing) {
  EXPECT_EQ(service->SetAccessToken("tok"), 0);
  EXPECT_EQ(service->SetAccessToken("Bearer fresh"), 0);
  EXPECT_LT(service->SetAccessToken("bad\r\nx-injected: 1"), 0);
  EXPECT_EQ(service->SetAccessToken("Bearer fresh"), 0);
  auto done = Done(OstrioDictionaryResource::GenericQuery(service, Text("{ me { id } }"), {}));
  auto request = Answer(R"({"data":{}})");
  ASSERT_TRUE(request);
  // The refused value was not stored, so the same token again was still a change and went out.
  EXPECT_EQ(request->Header("authorization"), "Bearer fresh");
  Settle(done);
}

TEST_F(ServiceFixture, TheTokenGoesToTheApiHostAloneNeverToMediaLinks) {
  const std::vector<std::pair<const char*, bool>> cases = {
      {"https://api.ostrio.test/media/a/original.mp4", true},
      {"https://media.ostrio.test/media/a/original.mp4?expires=1&signature=ab", false},
      {"https://ostrio.test/media/a", false},
      {"https://notapi.ostrio.test/media/a", false},
      {"https://api.ostrio.test.example.com/media/a", false},
      {"http://api.ostrio.test/media/a", false},
  };
  for (const auto& [url, carriesToken] : cases) {
    SCOPED_TRACE(url);
    auto done = Done(service->StreamingGet(url, [](auto&&...) {}, {}));
    auto request = Answer("", 404, {});
    ASSERT_TRUE(request);
    EXPECT_EQ(HeaderCount(request, "authorization"), carriesToken ? 1u : 0u);
    Settle(done);
  }
}

TEST_F(ServiceFixture, SixteenRequestsAreOnTheWireAtOnce) {
  std::vector<kelcore::async::Future<void>> done;
  for (int i = 0; i < 40; ++i) done.push_back(Done(OstrioDictionaryResource::GenericQuery(service, Text("{ x }"), {})));
  EXPECT_EQ(transport->PendingCount(), 16u);
  while (auto request = transport->Take()) transport->Answer(request, 200, {{"content-type", kJson}}, "{}");
  for (auto& future : done) Settle(future);
  EXPECT_EQ(transport->maxInFlight, 16);
  EXPECT_EQ(transport->all.size(), 40u);
}

}  // namespace
}  // namespace service_test

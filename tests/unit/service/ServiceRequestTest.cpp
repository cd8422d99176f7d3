// What each operation puts on the wire: body byte for byte, the endpoint and common headers per
// environment, client ID and token, and where the token may go. Documents are compared with the
// emulator's list of known texts, the list it also checks live requests against.

#include <gtest/gtest.h>

#include <fstream>
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

using namespace ostriolib;
using kelcore::utility::Guid;

const Guid kId("0a0a0a0a-0000-4000-8000-00000000000a");
const std::string kIdText = kId.ToString();

std::string KnownQuery(const std::string& name) {
  std::ifstream file(std::string(OSTRIO_EMULATOR_DIR) + "/lib/knownQueries.js");
  std::stringstream text;
  text << file.rdbuf();
  std::smatch found;
  const std::string source = text.str();
  const std::regex entry(name + R"re(:\s*\n\s*"([^"]*)")re");
  return std::regex_search(source, found, entry) ? found[1].str() : "<no document named " + name + ">";
}

std::size_t HeaderCount(const FakeRequestPtr& request, std::string_view name) {
  std::size_t count = 0;
  for (const auto& [key, value] : request->headers) count += key.View() == name;
  return count;
}

TEST_F(ServiceFixture, EveryOperationSendsItsDocumentAndVariablesExactly) {
  const std::string id = "\"" + kIdText + "\"";
  const std::string filters = R"("queryFiles":{"assetType":"FILE","folderId":)" + id +
                              R"(},"queryFolders":{"assetType":"FOLDER","folderId":)" + id + "}}";
  const kelcore::U8Str cursor = kelcore::ToU8Str("Y3Vy");
  const std::vector<std::tuple<std::string, Started, std::string>> cases = {
      {"CurrentUser", Start(OstrioUser::LoadUser(service)), ""},
      {"Accounts", Start(OstrioAccountList::LoadAccountList(service)), R"({"page":{"first":100}})"},
      {"WorkspacesByAccountID", Start(OstrioWorkspaceList::LoadWorkspaceList(service, kId, 25, {})),
       R"({"page":{"first":25},"accountID":)" + id + "}"},
      {"WorkspacesByAccountID", Start(OstrioWorkspaceList::LoadWorkspaceList(service, kId, 25, cursor)),
       R"({"page":{"first":25,"after":"Y3Vy"},"accountID":)" + id + "}"},
      {"WorkspaceCountByAccountID", Start(OstrioWorkspaceList::GetWorkspaceCount(service, kId)),
       R"({"page":{"first":0},"accountID":)" + id + "}"},
      {"ProjectsByWorkspaceID", Start(OstrioProjectList::LoadProjectList(service, kId, 10, cursor)),
       R"({"page":{"first":10,"after":"Y3Vy"},"workspaceID":)" + id + "}"},
      {"ProjectCountByWorkspaceID", Start(OstrioProjectList::GetProjectCount(service, kId)),
       R"({"page":{"first":0},"workspaceID":)" + id + "}"},
      {"GetFilesAndFolders", Start(OstrioAssets::LoadAssets(service, kId, 0, {}, 20, cursor)),
       R"({"pageFiles":{"first":20,"after":"Y3Vy"},"pageFolders":{"first":0},)" + filters},
      {"GetAssetCountsByFolderID", Start(OstrioAssets::GetAssetCounts(service, kId)),
       R"({"page":{"first":0},)" + filters},
  };
  for (const auto& [document, started, variables] : cases) {
    SCOPED_TRACE(document + " " + variables);
    auto request = Answer(R"({"data":{}})");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->body->View(), R"({"query":")" + KnownQuery(document) + "\"" +
                                         (variables.empty() ? "" : ",\"variables\":" + variables) + "}");
    EXPECT_EQ(request->url, "https://api.ostrio.test/graphql");
    Settle(started);
  }
}

TEST_F(ServiceFixture, EndpointAndCommonHeadersFollowEnvironmentClientIdAndToken) {
  const std::string production = "https://api" + std::string(kProdDomain.View()) + "/graphql";
  struct Case {
    int environment;
    const char *clientId, *preview, *token;
    std::string url;
    const char *name, *version, *previewHeader, *authorization;  // null: header absent
  };
  const std::vector<Case> cases = {
      {0, "Editor", "pv", "tok", production, "Editor", nullptr, nullptr, "Bearer tok"},
      {1, "Name/Extra/Version", "pv", "Bearer abc", "https://api.staging.test/graphql", "Name", "Version", nullptr,
       "Bearer abc"},
      {2, "a+b/1.2", "", "t", "https://api.ostrio.test/graphql", "a+b", "1.2", nullptr, "Bearer t"},
      {2, "a+b/1.2", "pv", "t", "https://api.ostrio.test/graphql", "a+b", "1.2", "pv", "Bearer t"},
      {7, "x/y", "pv", "t", production, "x", "y", nullptr, "Bearer t"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clientId + std::string(" in ") + std::to_string(c.environment));
    auto other = MakeService(EnvironmentType(c.environment), c.clientId, c.preview, c.token);
    auto started = Start(OstrioDictionaryResource::GenericQuery(other, kelcore::ToU8Str("{ me { id } }"), {}));
    auto request = Answer(R"({"data":{}})");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->url, c.url);
    EXPECT_EQ(request->body->View(), R"({"query":"{ me { id } }"})");
    EXPECT_EQ(HeaderCount(request, "content-type"), 1u);
    EXPECT_EQ(request->Header("content-type"), kJson);
    for (auto [name, value] : {std::pair{"apollographql-client-name", c.name},
                               {"apollographql-client-version", c.version},
                               {"x-preview-environment", c.previewHeader},
                               {"authorization", c.authorization}}) {
      EXPECT_EQ(HeaderCount(request, name), value ? 1u : 0u) << name;
      EXPECT_EQ(request->Header(name), value ? value : "") << name;
    }
    Settle(started);
  }
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
    auto started = Start(service->StreamingGet(url, [](auto&&...) {}, {}));
    auto request = Answer("", 404, {});
    ASSERT_TRUE(request);
    EXPECT_EQ(HeaderCount(request, "authorization"), carriesToken ? 1u : 0u);
    Settle(started);
  }
  // A refreshed token replaces the old one from the next request on (the service keeps
  // accepting the old one for a while, so only this shows a token that never changes).
  ASSERT_EQ(service->SetAccessToken(kelcore::ImmutableString("tok2")), 0);
  auto started = Start(OstrioDictionaryResource::GenericQuery(service, kelcore::ToU8Str("{ x }"), {}));
  auto request = Answer(R"({"data":{}})");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->Header("authorization"), "Bearer tok2");
  Settle(started);
}

TEST_F(ServiceFixture, SixteenRequestsAreOnTheWireAtOnce) {
  std::vector<Started> started;
  for (int i = 0; i < 40; ++i) {
    started.push_back(Start(OstrioDictionaryResource::GenericQuery(service, kelcore::ToU8Str("{ x }"), {})));
  }
  EXPECT_EQ(transport->PendingCount(), 16u);
  while (auto request = transport->Take()) transport->Answer(request, 200, {{"content-type", kJson}}, "{}");
  for (auto& future : started) Settle(future);
  EXPECT_EQ(transport->maxInFlight, 16);
  EXPECT_EQ(transport->all.size(), 40u);
}

}  // namespace
}  // namespace service_test

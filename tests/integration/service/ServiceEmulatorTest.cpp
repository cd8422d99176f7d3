// The service against the emulator over HTTPS, in the development environment: records read from
// the seed, what crosses the wire (the emulator names each document it recognises, the common
// headers) and the gateway failures the service retries. Paging the large folder, asset counts,
// "unauthenticated" answers and media links without the token are the client session's tests
// (integration/client).

#include <gtest/gtest.h>

#include <set>

#include "EmulatorProcess.h"
#include "kelcore/Dictionary.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

namespace {

using kelcore::U8Str;
using kelcore::classref::InterfaceRef;
using kelcore::utility::Dictionary;
using kelcore::utility::Guid;
using namespace ostriolib;

Dictionary Parse(const std::string& text) {
  auto parsed = kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size());
  return parsed ? parsed->AsDictionary() : Dictionary();
}

template <class T>
T Await(const kelcore::async::Future<T>& future) {
  if (!future.WaitFor(std::chrono::minutes(2))) throw std::runtime_error("future never completed");
  return future.Get();
}

class ServiceEmulatorTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    emulator = EmulatorProcess::Start({"--dataset", "large"});
    if (emulator) data = Parse(emulator->ControlGet("data"));
  }
  static void TearDownTestSuite() { emulator.reset(); }

  void SetUp() override {
    ASSERT_TRUE(emulator) << "the emulator did not start";
    emulator->ControlDelete("faults");
    emulator->ControlDelete("requests");
    accessToken = Parse(emulator->ControlPost("session", "{}")).GetString("accessToken");
    service = CreateOstrioService();
    ASSERT_EQ(service->Initialize("ostrio-tests+CLI/1.0.7", accessToken, kEnvironmentDevelopment, "pv-7",
                                  [](const kelcore::ImmutableString&) {}),
              0);
  }

  // The request log, oldest first.
  static std::vector<Dictionary> Requests() {
    std::vector<Dictionary> entries;
    for (const auto& entry : Parse(emulator->ControlGet("requests")).GetArray("requests")) {
      entries.push_back(entry.AsDictionary());
    }
    return entries;
  }
  static std::string Header(const Dictionary& entry, std::string_view name) {
    for (const auto& header : entry.GetArray("headers")) {
      auto pair = header.AsArray();
      if (pair.size() == 2 && pair[0].AsStringView() == name) return pair[1].AsString();
    }
    return "<none>";
  }

  static inline std::unique_ptr<EmulatorProcess> emulator;
  static inline Dictionary data;
  std::string accessToken;
  InterfaceRef<IOstrioService> service;
};

TEST_F(ServiceEmulatorTest, RecordsComeFromTheSeedAndEveryRequestCarriesAKnownDocumentAndTheCommonHeaders) {
  const CurrentUser user = Await(OstrioUser::LoadUser(service))->GetUser();
  EXPECT_EQ(user.id, Guid(data.GetDictionary("user").GetString("id")));
  EXPECT_EQ(kelcore::AsStringView(user.email), "dana@example.com");
  EXPECT_EQ(user.typeName, "AuthenticatedUser");
  EXPECT_FALSE(user.profileImageUrl.empty());

  // 153 accounts in the seed: the first 100, in order, with their versions.
  const auto accounts = Await(OstrioAccountList::LoadAccountList(service))->GetAccountList();
  const auto seeded = data.GetArray("accounts");
  ASSERT_EQ(accounts.size(), 100u);
  ASSERT_GT(seeded.size(), 100u);
  for (std::size_t i = 0; i < accounts.size(); ++i) {
    const Dictionary expected = seeded[i].AsDictionary();
    EXPECT_EQ(accounts[i].id, Guid(expected.GetString("id")));
    EXPECT_EQ(kelcore::AsStringView(accounts[i].name), expected.GetString("displayName"));
    EXPECT_EQ(accounts[i].version, expected.GetInteger("version"));
    EXPECT_EQ(accounts[i].typeName, "Account");
  }

  // Workspaces one page, then projects one at a time to the end. Workspaces to the end, the large
  // folder and the asset counts are the client session test's.
  const WorkspaceList workspaces =
      Await(OstrioWorkspaceList::LoadWorkspaceList(service, accounts[0].id, 1, {}))->GetWorkspaceList();
  ASSERT_EQ(workspaces.workspaces.size(), 1u);
  EXPECT_EQ(workspaces.workspaces[0].typeName, "Workspace");
  EXPECT_FALSE(workspaces.nextCursor.empty());
  const Guid workspace = workspaces.workspaces[0].id;
  U8Str cursor;
  std::vector<Project> projects;
  for (int pages = 0; pages == 0 || !cursor.empty(); ++pages) {
    ASSERT_LT(pages, 50) << "paging does not end";
    const ProjectList page = Await(OstrioProjectList::LoadProjectList(service, workspace, 1, cursor))->GetProjectList();
    projects.insert(projects.end(), page.projects.begin(), page.projects.end());
    cursor = page.nextCursor;
  }
  ASSERT_GE(projects.size(), 2u);
  EXPECT_EQ(projects[1].typeName, "Project");
  EXPECT_EQ(Await(OstrioProjectList::GetProjectCount(service, workspace)), static_cast<int>(projects.size()));

  std::multiset<std::string> known;
  for (const auto& entry : Requests()) {
    if (entry.GetString("path") != "/graphql") continue;
    known.insert(entry.GetDictionary("graphql").GetString("known", "<not known>"));
    EXPECT_EQ(entry.GetInteger("status"), 200);
    EXPECT_EQ(Header(entry, "authorization"), "Bearer " + accessToken);
    EXPECT_EQ(Header(entry, "apollographql-client-name"), "ostrio-tests+CLI");
    EXPECT_EQ(Header(entry, "apollographql-client-version"), "1.0.7");
    EXPECT_EQ(Header(entry, "x-preview-environment"), "pv-7");
  }
  const std::multiset<std::string> expected = {
      "CurrentUser", "Accounts", "WorkspacesByAccountID", "ProjectCountByWorkspaceID"};
  EXPECT_EQ(known.count("ProjectsByWorkspaceID"), projects.size());
  known.erase("ProjectsByWorkspaceID");
  EXPECT_EQ(known, expected);
}

TEST_F(ServiceEmulatorTest, GatewayFailuresAreRetriedUntilTheAnswerComes) {
  for (const char* status : {"502", "503", "504"}) {
    emulator->ControlPost("faults", std::string(R"({"route":"graphql","status":)") + status + "}");
  }
  EXPECT_EQ(Await(OstrioUser::LoadUser(service))->GetUser().id, Guid(data.GetDictionary("user").GetString("id")));
  std::vector<std::int64_t> statuses;
  for (const auto& entry : Requests()) statuses.push_back(entry.GetInteger("status"));
  EXPECT_EQ(statuses, (std::vector<std::int64_t>{502, 503, 504, 200}));
}

}  // namespace

// The service and every query family against the emulator over HTTPS, in the development
// environment: what crosses the wire (the emulator names each document it recognises), paging a
// folder of 10 000 files and 250 folders to the end, an "unauthenticated" answer, a 503 burst, and
// a media link fetched without the token.

#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "EmulatorProcess.h"
#include "kelcore/Dictionary.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

namespace {

using kelcore::U8Str;
using kelcore::classref::InterfaceRef;
using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;
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
    auto counter = unauthenticated;
    ASSERT_EQ(service->Initialize("ostrio-tests+CLI/1.0.7", accessToken, kEnvironmentDevelopment, "pv-7",
                                  [counter](const kelcore::ImmutableString&) { ++*counter; }),
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
  std::shared_ptr<std::atomic<int>> unauthenticated = std::make_shared<std::atomic<int>>(0);
  InterfaceRef<IOstrioService> service;
};

TEST_F(ServiceEmulatorTest, EveryQueryFamilyReadsTheSeedAndSendsTheKnownDocuments) {
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
  }

  // Workspaces and projects one at a time to the end, against their counts.
  const Guid account = accounts[0].id;
  std::vector<Guid> workspaces;
  U8Str cursor;
  for (int pages = 0; pages == 0 || !cursor.empty(); ++pages) {
    ASSERT_LT(pages, 50) << "paging does not end";
    const WorkspaceList page = Await(OstrioWorkspaceList::LoadWorkspaceList(service, account, 1, cursor))->GetWorkspaceList();
    for (const auto& w : page.workspaces) workspaces.push_back(w.id);
    cursor = page.nextCursor;
  }
  ASSERT_GE(workspaces.size(), 2u);
  EXPECT_EQ(Await(OstrioWorkspaceList::GetWorkspaceCount(service, account)), static_cast<int>(workspaces.size()));

  std::vector<Project> projects;
  for (int pages = 0; pages == 0 || !cursor.empty(); ++pages) {
    ASSERT_LT(pages, 50) << "paging does not end";
    const ProjectList page = Await(OstrioProjectList::LoadProjectList(service, workspaces[0], 1, cursor))->GetProjectList();
    projects.insert(projects.end(), page.projects.begin(), page.projects.end());
    cursor = page.nextCursor;
  }
  ASSERT_GE(projects.size(), 2u);
  EXPECT_EQ(Await(OstrioProjectList::GetProjectCount(service, workspaces[0])), static_cast<int>(projects.size()));

  const AssetCounts counts = Await(OstrioAssets::GetAssetCounts(service, projects[0].rootAssetId));
  const Assets root = Await(OstrioAssets::LoadAssets(service, projects[0].rootAssetId, 100, {}, 100, {}))->GetFolderAssets();
  EXPECT_EQ(counts.folderCount, static_cast<int>(root.folders.size()));
  EXPECT_EQ(counts.fileCount, static_cast<int>(root.files.size()));
  EXPECT_GT(counts.folderCount, 0);

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
      "CurrentUser", "Accounts", "WorkspaceCountByAccountID", "ProjectCountByWorkspaceID",
      "GetAssetCountsByFolderID", "GetFilesAndFolders"};
  std::multiset<std::string> sent = known;
  EXPECT_EQ(sent.count("WorkspacesByAccountID"), workspaces.size());
  EXPECT_EQ(sent.count("ProjectsByWorkspaceID"), projects.size());
  sent.erase("WorkspacesByAccountID");
  sent.erase("ProjectsByWorkspaceID");
  EXPECT_EQ(sent, expected);
}

TEST_F(ServiceEmulatorTest, TheLargeFolderPagesToTheEndThroughTwoIndependentCursors) {
  const Guid folder(data.GetString("largeFolderId"));
  // Folders run out after 7 pages, files after 15: from then on the exhausted kind asks for none.
  constexpr int kFolderPage = 40, kFilePage = 700;
  std::vector<Guid> folders, files;
  U8Str foldersAfter, filesAfter;
  bool foldersDone = false, filesDone = false;
  int requests = 0;
  while (!foldersDone || !filesDone) {
    ASSERT_LT(++requests, 40) << "paging does not end";
    const Assets page = Await(OstrioAssets::LoadAssets(service, folder, foldersDone ? 0 : kFolderPage, foldersAfter,
                                                       filesDone ? 0 : kFilePage, filesAfter))
                            ->GetFolderAssets();
    if (!foldersDone) {
      folders.insert(folders.end(), page.folders.begin(), page.folders.end());
      foldersAfter = page.foldersCursor;
      foldersDone = foldersAfter.empty();
    }
    if (!filesDone) {
      files.insert(files.end(), page.files.begin(), page.files.end());
      filesAfter = page.filesCursor;
      filesDone = filesAfter.empty();
    }
  }
  EXPECT_EQ(requests, 15);
  EXPECT_EQ(std::set<Guid>(folders.begin(), folders.end()).size(), folders.size()) << "a folder came twice";
  EXPECT_EQ(std::set<Guid>(files.begin(), files.end()).size(), files.size()) << "a file came twice";
  const AssetCounts counts = Await(OstrioAssets::GetAssetCounts(service, folder));
  EXPECT_EQ(counts.folderCount, static_cast<int>(folders.size()));
  EXPECT_EQ(counts.fileCount, static_cast<int>(files.size()));
  EXPECT_EQ(counts.folderCount, data.GetDictionary("largeFolder").GetInteger("folderCount"));
  EXPECT_EQ(counts.fileCount, data.GetDictionary("largeFolder").GetInteger("fileCount"));
}

TEST_F(ServiceEmulatorTest, AnUnauthenticatedAnswerReachesTheServiceHandlerAndFailsTheLoad) {
  emulator->ControlPost("revoke", R"({"accessToken":")" + accessToken + R"("})");
  const auto load = OstrioUser::LoadUser(service);
  EXPECT_THROW(Await(load), kelcore::kel_exception);
  EXPECT_EQ(load.GetResult(), kelcore::kErrorUnauthenticated);
  EXPECT_EQ(*unauthenticated, 1);
}

TEST_F(ServiceEmulatorTest, A503BurstIsRetriedUntilTheAnswerComes) {
  emulator->ControlPost("faults", R"({"route":"graphql","status":503,"count":3})");
  EXPECT_EQ(Await(OstrioUser::LoadUser(service))->GetUser().id, Guid(data.GetDictionary("user").GetString("id")));
  std::vector<std::int64_t> statuses;
  for (const auto& entry : Requests()) statuses.push_back(entry.GetInteger("status"));
  EXPECT_EQ(statuses, (std::vector<std::int64_t>{503, 503, 503, 200}));
}

TEST_F(ServiceEmulatorTest, AMediaLinkOnAnotherHostIsFetchedWithoutTheToken) {
  const Dictionary video = data.GetDictionary("videoAsset");
  const std::string url = video.GetString("downloadUrl");
  ASSERT_NE(url.find("://media."), std::string::npos) << url;
  std::atomic<std::uint64_t> bytes{0};
  const auto response = Await(service->StreamingGet(
      url, [&bytes](const Guid&, const void*, std::size_t, std::size_t size, auto&&...) { bytes += size; }, {}));
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_EQ(bytes, static_cast<std::uint64_t>(video.GetInteger("size")));
  const auto requests = Requests();
  ASSERT_FALSE(requests.empty());
  for (const auto& entry : requests) {
    EXPECT_EQ(entry.GetString("host").rfind("media.", 0), 0u) << entry.GetString("host");
    EXPECT_EQ(Header(entry, "authorization"), "<none>");
  }
}

}  // namespace

// The client end to end against the emulator over HTTPS: a browser sign-in through the
// redirect, every query family with paging to the end, the token's life, and downloads.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "EmulatorProcess.h"
#include "Sanitizers.h"
#include "kelcore/Dictionary.h"
#include "kelcore/Executor.h"
#include "kelcore/ResultCodes.h"
#include "ostriolib/OstrioClient.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {
namespace {

using kelcore::utility::Dictionary;
using kelcore::utility::Guid;
using namespace std::chrono_literals;

constexpr auto kHangGuard = 120s;  // stops a broken test from hanging; never a timing assertion
constexpr char kScheme[] = "ostrio-client-e2e";

Dictionary ParseJson(const std::string& text) {
  auto parsed = kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size());
  return parsed ? parsed->AsDictionary() : Dictionary();
}

template <class T>
T Await(const kelcore::async::Future<T>& future) {
  if (!future.WaitFor(kHangGuard)) throw std::runtime_error("a future never completed");
  return future.Get();
}

class ClientSessionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    emulator = EmulatorProcess::Start({"--dataset", "large"});
    if (!emulator) return;
    scratch = std::filesystem::temp_directory_path() / ("ostrio-client-e2e-" + std::to_string(::getpid()));
    std::filesystem::create_directories(scratch);
    for (const char* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
      ::setenv(name, (scratch / name).c_str(), 1);
    }
    ::setenv("OSTRIOLIB_ENVIRONMENT", "2", 1);
    ::setenv("OSTRIOLIB_KEYCHAIN", "memory", 1);
    ::setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
    // The browser approves the sign-in page and leaves the redirect where the test finds it.
    const std::string browser = "sh -c 'curl -s --cacert \"" + emulator->CaPath() +
                                "\" -o /dev/null -w \"%{redirect_url}\" \"$1&approve=1\" > \"" +
                                (scratch / "redirect.tmp").string() + "\" && mv \"" +
                                (scratch / "redirect.tmp").string() + "\" \"" + (scratch / "redirect").string() +
                                "\"' browser %u";
    ::setenv("OSTRIOLIB_BROWSER", browser.c_str(), 1);
    static const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", "ClientE2E"},
                                                     {"ostriolib.OstrioRedirectURI", kScheme}};
    OstrioLibBeginProcess("Acme", "2.0", "9", parameters, 2);
  }
  static void TearDownTestSuite() {
    emulator.reset();
    std::error_code ignored;
    std::filesystem::remove_all(scratch, ignored);
  }

  void SetUp() override {
    ASSERT_TRUE(emulator) << "the emulator did not start";
    kelcore::async::InstallMainThreadDispatcher(loop);
    client = OstrioClient::GetInstance();
    emulator->ControlDelete("faults");
    if (client->IsOstrioUserSignedIn()) client->SignOutOstrioUser();
    emulator->ControlDelete("requests");
  }
  void TearDown() override { kelcore::async::UninstallMainThreadDispatcher(); }

  // Signs in with a session of the emulator's, as the redirect would hand it over.
  void SignInWithSession(int lifetime) {
    const auto session = ParseJson(emulator->ControlPost("session", "{\"lifetime\":" + std::to_string(lifetime) + "}"));
    const std::string url = std::string(kScheme) + "://ostrio#" + session.GetString("record");
    ASSERT_EQ(GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  }

  std::vector<Dictionary> Logged(std::string_view path) {
    std::vector<Dictionary> found;
    for (const auto& entry : ParseJson(emulator->ControlGet("requests")).GetArray("requests")) {
      auto request = entry.AsDictionary();
      if (request.GetString("path").starts_with(path)) found.push_back(request);
    }
    return found;
  }

  static inline std::unique_ptr<EmulatorProcess> emulator;
  static inline std::filesystem::path scratch;
  std::shared_ptr<kelcore::async::MainThreadRunLoop> loop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  std::shared_ptr<OstrioClient> client;
};

TEST_F(ClientSessionTest, BrowserSignInThenEveryQueryFamilyToTheLastPage) {
  int signedInChanges = 0;
  kelcore::messaging::Listener<OstrioUserSignedInChangedMessage> listener(
      client->GetStationID(), [&](const auto&) { ++signedInChanges; });
  std::filesystem::remove(scratch / "redirect");
  ASSERT_EQ(client->SignInOstrioUser(), 0);
  // The browser is another process: wait (bounded) for the page's redirect it leaves behind.
  for (int i = 0; i < 3000 && !std::filesystem::exists(scratch / "redirect"); ++i) std::this_thread::sleep_for(10ms);
  std::ifstream redirect(scratch / "redirect");
  const std::string callback((std::istreambuf_iterator<char>(redirect)), {});
  ASSERT_TRUE(callback.starts_with(std::string(kScheme) + "://")) << callback;
  ASSERT_EQ(GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(callback)), 0);
  ASSERT_TRUE(loop->RunUntil([&] { return signedInChanges == 1; }, kHangGuard));

  const auto user = Await(client->GetCurrentUser())->GetUser();
  EXPECT_EQ(kelcore::ToStdString(user.name), "Dana Demo");
  const auto accounts = Await(client->GetUserAccounts())->GetAccountList();
  ASSERT_EQ(accounts.size(), 100u);  // the large set has more; one page of 100 is all that is asked

  // Pages of one, to the end, against the counts.
  const Guid account = accounts[0].id;
  std::vector<OstrioObject> workspaces;
  kelcore::U8Str cursor;
  do {
    auto page = Await(client->GetAccountWorkspaces(account, 1, cursor))->GetWorkspaceList();
    workspaces.insert(workspaces.end(), page.workspaces.begin(), page.workspaces.end());
    cursor = page.nextCursor;
  } while (!cursor.empty() && workspaces.size() < 1000);
  EXPECT_EQ(static_cast<int>(workspaces.size()), Await(client->GetWorkspaceCount(account)));
  ASSERT_FALSE(workspaces.empty());
  const auto projects = Await(client->GetWorkspaceProjects(workspaces[0].id, 100, {}))->GetProjectList();
  ASSERT_FALSE(projects.projects.empty());
  EXPECT_EQ(static_cast<int>(projects.projects.size()), Await(client->GetProjectCount(workspaces[0].id)));

  // The large folder: both kinds paged with their own cursors until each runs out.
  const auto data = ParseJson(emulator->ControlGet("data"));
  const Guid large = Guid(data.GetString("largeFolderId"));
  std::set<std::string> folders, files;
  kelcore::U8Str foldersAfter, filesAfter;
  int pages = 0;
  for (bool more = true; more && pages < 200; ++pages) {
    const int foldersFirst = pages == 0 || !foldersAfter.empty() ? 40 : 0;
    const int filesFirst = pages == 0 || !filesAfter.empty() ? 500 : 0;
    auto page = Await(client->GetFolderAssets(large, foldersFirst, foldersAfter, filesFirst, filesAfter))
                    ->GetFolderAssets();
    for (const auto& id : page.folders) EXPECT_TRUE(folders.insert(id.ToString()).second) << "duplicate folder";
    for (const auto& id : page.files) EXPECT_TRUE(files.insert(id.ToString()).second) << "duplicate file";
    foldersAfter = page.foldersCursor;
    filesAfter = page.filesCursor;
    more = !foldersAfter.empty() || !filesAfter.empty();
  }
  const auto counts = Await(client->GetAssetCounts(large));
  EXPECT_EQ(counts.folderCount, static_cast<int>(folders.size()));
  EXPECT_EQ(counts.fileCount, static_cast<int>(files.size()));
  EXPECT_EQ(files.size(), 10000u);

  const auto answer = Await(client->RunQuery(kelcore::ToU8Str("{ me { id } }"), {}))->GetDictionary();
  EXPECT_EQ(answer.GetDictionary("data").GetDictionary("me").GetString("id"), user.id.ToString());

  // Every library query text reached the service exactly as the service's schema knows it.
  for (const auto& request : Logged("/graphql")) {
    const auto graphql = request.GetDictionary("graphql");
    if (graphql.GetString("operationName").empty() && request.GetString("body").find("{ me { id } }") != std::string::npos) {
      continue;  // the free query
    }
    EXPECT_FALSE(graphql.GetString("known").empty()) << request.GetString("body");
  }
}

TEST_F(ClientSessionTest, UnauthenticatedAnswersAndRefusedRefreshesReachTheHost) {
  std::vector<int> failures;
  int refreshed = 0;
  kelcore::messaging::Listener<OstrioAccessTokenRefreshedMessage> ok(client->GetStationID(),
                                                                     [&](const auto&) { ++refreshed; });
  kelcore::messaging::Listener<OstrioTokenRefreshFailedMessage> failed(
      client->GetStationID(), [&](const OstrioTokenRefreshFailedMessage& m) { failures.push_back(m.Get<1>()); });

  // A token within its last hour is refreshed once before the query; the query's
  // "unauthenticated" answer then prepares again, with the fresh token, and tells the host.
  SignInWithSession(1800);
  emulator->ControlPost("faults", R"({"route":"graphql","graphqlError":"unauthenticated","count":1})");
  auto query = client->GetCurrentUser();
  ASSERT_TRUE(query.WaitFor(kHangGuard));
  EXPECT_EQ(query.GetResult(), kelcore::kErrorUnauthenticated);
  ASSERT_TRUE(loop->RunUntil([&] { return refreshed == 1; }, kHangGuard));
  EXPECT_EQ(Logged("/v2/auth/refresh_tokens/").size(), 1u);
  EXPECT_EQ(Await(client->GetCurrentUser())->GetUser().name.empty(), false);

  // A session whose refresh token the service no longer accepts: the refresh is refused, the
  // user signed out, and the host hears of it when the next answer says "unauthenticated".
  const auto session = ParseJson(emulator->ControlPost("session", R"({"lifetime":1800})"));
  emulator->ControlPost("revoke", "{\"refreshToken\":\"" + session.GetString("refreshToken") + "\"}");
  ASSERT_EQ(GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(
                kelcore::ToU8Str(std::string(kScheme) + "://ostrio#" + session.GetString("record"))),
            0);
  emulator->ControlDelete("requests");
  emulator->ControlPost("faults", R"({"route":"graphql","graphqlError":"unauthenticated","count":1})");
  auto refused = client->GetCurrentUser();
  ASSERT_TRUE(refused.WaitFor(kHangGuard));
  ASSERT_TRUE(loop->RunUntil([&] { return !failures.empty(); }, kHangGuard));
  EXPECT_LT(failures[0], 0);
  EXPECT_FALSE(client->IsOstrioUserSignedIn());
  EXPECT_EQ(Logged("/v2/auth/refresh_tokens/").size(), 1u);
}

TEST_F(ClientSessionTest, DownloadsLandWholeOrFail) {
  SignInWithSession(7200);
  const auto data = ParseJson(emulator->ControlGet("data"));
  const auto video = data.GetDictionary("videoAsset");
  const Guid asset = Guid(video.GetString("id"));
  const auto target = scratch / "download";

  // Original and thumbnail by asset id: every byte is the emulator's pattern for that resource.
  struct Rendition {
    RenditionType type;
    const char* size;
    const char* seed;
  } renditions[] = {{Original, "size", "seed"}, {Thumbnail, "thumbnailSize", "thumbnailSeed"}};
  for (const auto& r : renditions) {
    Await(client->DownloadVideoAsset(asset, r.type, kelcore::filesupport::File(target)));
    const auto size = static_cast<std::uintmax_t>(video.GetInteger(r.size));
    const auto seed = video.GetInteger(r.seed);
    ASSERT_EQ(std::filesystem::file_size(target), size);
    std::ifstream in(target, std::ios::binary);
    std::vector<char> bytes(size);
    in.read(bytes.data(), static_cast<std::streamsize>(size));
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < size; ++i) wrong += static_cast<unsigned char>(bytes[i]) != (i + seed) % 251;
    EXPECT_EQ(wrong, 0u) << "rendition " << r.type;
  }
  for (const auto& media : Logged("/media/")) {
    for (const auto& header : media.GetArray("headers")) {
      EXPECT_NE(header.AsArray()[0].AsString(), "authorization") << "a media request carried the token";
    }
  }

  // 2 GiB in parallel ranges, arriving out of order, into a file in flat memory.
  const std::uint64_t big = kSanitized ? (256ull << 20) : (2ull << 30);
  const kelcore::ImmutableString synthetic(emulator->ApiUrl("/media/synthetic/" + std::to_string(big)));
  rusage before{};
  ::getrusage(RUSAGE_SELF, &before);
  std::atomic<std::uint64_t> written{0};
  Await(client->DownloadFileFromURL(synthetic, kelcore::filesupport::File(target),
                                    [&](const DownloadProgress& p) { written = p.bytesWritten; }));
  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  EXPECT_EQ(written.load(), big);
  ASSERT_EQ(std::filesystem::file_size(target), big);
  if (!kSanitized) {
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "KiB of peak memory grew";
  }
  // Blocks of a whole number of pattern periods all read the same.
  std::vector<char> pattern(251 * 4096), block(pattern.size());
  for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>(i % 251);
  std::ifstream in(target, std::ios::binary);
  std::uint64_t wrongBlocks = 0;
  while (in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0) {
    wrongBlocks += std::memcmp(block.data(), pattern.data(), static_cast<std::size_t>(in.gcount())) != 0;
  }
  EXPECT_EQ(wrongBlocks, 0u);
  std::filesystem::remove(target);

  // A connection broken off mid-body whose resume is refused ends in a failure, never in a short
  // file called success.
  emulator->ControlPost("faults", R"({"route":"media","resetAfterBytes":1000000,"count":1})");
  emulator->ControlPost("faults", R"({"route":"media","status":500,"count":100})");
  auto broken = client->DownloadFileFromURL(kelcore::ImmutableString(emulator->ApiUrl("/media/synthetic/50000000")),
                                            kelcore::filesupport::File(target));
  ASSERT_TRUE(broken.WaitFor(kHangGuard));
  EXPECT_LT(broken.GetResult(), 0);
}

}  // namespace
}  // namespace ostriolib

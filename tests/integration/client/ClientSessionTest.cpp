// The client end to end against the emulator over HTTPS: every query family, the large folder
// paged to the end, the token's life, and downloads. Every query text a test sends must be one
// the emulator knows byte for byte (checked as each test ends); the exact bodies, headers and the
// retried statuses are the service's unit tests, broken downloads the transport's.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <fstream>
#include <set>

#include "ClientDoubles.h"
#include "EmulatorProcess.h"
#include "Sanitizers.h"
#include "TransportTestSupport.h"
#include "ScratchFolders.h"
#include "kelcore/Dictionary.h"
#include "kelcore/Executor.h"
#include "kelcore/ResultCodes.h"

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

// The file against the emulator's media pattern for that seed (byte i is (i + seed) % 251): every
// byte there once, none wrong.
::testing::AssertionResult HoldsThePattern(const std::filesystem::path& file, std::uint64_t size, int seed = 0) {
  transport_test::PatternSink sink(seed);
  std::ifstream in(file, std::ios::binary);
  std::vector<char> block(1 << 20);
  for (std::size_t offset = 0; in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0;) {
    sink.OnData(block.data(), offset, static_cast<std::size_t>(in.gcount()));
    offset += static_cast<std::size_t>(in.gcount());
  }
  return sink.Complete(size);
}

class ClientSessionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    emulator = EmulatorProcess::Start({"--dataset", "large"});
    ::setenv("OSTRIOLIB_ENVIRONMENT", "2", 1);
    BeginClientProcess(scratch.Path(), "ClientE2E", kScheme);
  }
  static void TearDownTestSuite() { emulator.reset(); }

  void SetUp() override {
    ASSERT_TRUE(emulator) << "the emulator did not start";
    kelcore::async::InstallMainThreadDispatcher(loop);
    emulator->ControlDelete("faults");
    if (client->IsOstrioUserSignedIn()) client->SignOutOstrioUser();
    emulator->ControlDelete("requests");
  }
  void TearDown() override {
    for (const auto& request : Logged("/graphql")) {
      EXPECT_FALSE(request.GetDictionary("graphql").GetString("known").empty()) << request.GetString("body");
    }
    kelcore::async::UninstallMainThreadDispatcher();
  }

  // Signs in with a session of the emulator's, as the redirect would hand it over.
  static Dictionary SignInWithSession(int lifetime) {
    auto session = ParseJson(emulator->ControlPost("session", "{\"lifetime\":" + std::to_string(lifetime) + "}"));
    const std::string url = std::string(kScheme) + "://ostrio#" + session.GetString("record");
    EXPECT_EQ(GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
    return session;
  }
  static std::vector<Dictionary> Logged(std::string_view path) {
    std::vector<Dictionary> found;
    if (!emulator) return found;
    for (const auto& entry : ParseJson(emulator->ControlGet("requests")).GetArray("requests")) {
      if (entry.AsDictionary().GetString("path").starts_with(path)) found.push_back(entry.AsDictionary());
    }
    return found;
  }

  static inline TemporaryDirectory scratch;
  static inline std::unique_ptr<EmulatorProcess> emulator;
  std::shared_ptr<kelcore::async::MainThreadRunLoop> loop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  std::shared_ptr<OstrioClient> client = OstrioClient::GetInstance();
};

TEST_F(ClientSessionTest, EveryQueryFamilyAndTheLargeFolderToItsLastPage) {
  SignInWithSession(7200);
  const CurrentUser user = Await(client->GetCurrentUser())->GetUser();
  EXPECT_EQ(user.typeName.ToStdString() + " " + kelcore::ToStdString(user.name) + " " + kelcore::ToStdString(user.email),
            "AuthenticatedUser Dana Demo dana@example.com");
  EXPECT_FALSE(user.profileImageUrl.empty());
  const auto accounts = Await(client->GetUserAccounts())->GetAccountList();
  ASSERT_EQ(accounts.size(), 100u);  // the large set has more; one page of 100 is all that is asked
  const auto workspaces = Await(client->GetAccountWorkspaces(accounts[0].id, 100, {}))->GetWorkspaceList().workspaces;
  ASSERT_FALSE(workspaces.empty());
  EXPECT_EQ(static_cast<int>(workspaces.size()), Await(client->GetWorkspaceCount(accounts[0].id)));
  const auto projects = Await(client->GetWorkspaceProjects(workspaces[0].id, 100, {}))->GetProjectList().projects;
  ASSERT_FALSE(projects.empty());
  EXPECT_EQ(static_cast<int>(projects.size()), Await(client->GetProjectCount(workspaces[0].id)));
  EXPECT_GT(Await(client->GetAssetCounts(projects[0].rootAssetId)).folderCount, 0);  // a folder the service knows

  // The large folder: both kinds paged with their own cursors until each runs out.
  const Guid large(ParseJson(emulator->ControlGet("data")).GetString("largeFolderId"));
  std::set<Guid> folders, files;
  kelcore::U8Str foldersAfter, filesAfter;
  for (int pages = 0; pages == 0 || !foldersAfter.empty() || !filesAfter.empty(); ++pages) {
    ASSERT_LT(pages, 200) << "paging does not end";
    const int foldersFirst = pages == 0 || !foldersAfter.empty() ? 40 : 0;
    const int filesFirst = pages == 0 || !filesAfter.empty() ? 500 : 0;
    const auto page = Await(client->GetFolderAssets(large, foldersFirst, foldersAfter, filesFirst, filesAfter))
                          ->GetFolderAssets();
    for (const auto& id : page.folders) EXPECT_TRUE(folders.insert(id).second) << "duplicate folder";
    for (const auto& id : page.files) EXPECT_TRUE(files.insert(id).second) << "duplicate file";
    foldersAfter = page.foldersCursor;
    filesAfter = page.filesCursor;
  }
  const auto counts = Await(client->GetAssetCounts(large));
  EXPECT_EQ(counts.folderCount, static_cast<int>(folders.size()));
  EXPECT_EQ(counts.fileCount, static_cast<int>(files.size()));
  EXPECT_EQ(files.size(), 10000u);
}

TEST_F(ClientSessionTest, UnauthenticatedAnswersAndRefusedRefreshesReachTheHost) {
  std::vector<int> failures;
  int refreshed = 0;
  bool offMain = false;  // the host hears on its main thread, whichever thread the answer came on
  kelcore::messaging::Listener<OstrioAccessTokenRefreshedMessage> ok(
      client->GetStationID(), [&](const auto&) { ++refreshed, offMain |= !kelcore::async::IsMainThread(); });
  kelcore::messaging::Listener<OstrioTokenRefreshFailedMessage> failed(
      client->GetStationID(), [&](const OstrioTokenRefreshFailedMessage& m) {
        failures.push_back(m.Get<1>()), offMain |= !kelcore::async::IsMainThread();
      });
  const auto unauthenticatedOnce = [&] {
    emulator->ControlPost("faults", R"({"route":"graphql","graphqlError":"unauthenticated","count":1})");
    auto query = client->GetCurrentUser();
    ASSERT_TRUE(query.WaitFor(kHangGuard));
    EXPECT_EQ(query.GetResult(), kelcore::kErrorUnauthenticated);
  };

  // A token within its last hour is refreshed once before the query; the query's
  // "unauthenticated" answer then prepares again, with the fresh token, and tells the host.
  SignInWithSession(1800);
  unauthenticatedOnce();
  ASSERT_TRUE(loop->RunUntil([&] { return refreshed == 1; }, kHangGuard));
  EXPECT_EQ(Logged("/v2/auth/refresh_tokens/").size(), 1u);

  // A session whose refresh token the service no longer accepts: the refresh is refused, the
  // user signed out, and the host hears of it when the next answer says "unauthenticated".
  emulator->ControlDelete("requests");
  emulator->ControlPost("revoke", "{\"refreshToken\":\"" + SignInWithSession(1800).GetString("refreshToken") + "\"}");
  unauthenticatedOnce();
  ASSERT_TRUE(loop->RunUntil([&] { return !failures.empty(); }, kHangGuard));
  EXPECT_LT(failures[0], 0);
  EXPECT_FALSE(client->IsOstrioUserSignedIn());
  EXPECT_EQ(Logged("/v2/auth/refresh_tokens/").size(), 1u);
  EXPECT_FALSE(offMain);
}

TEST_F(ClientSessionTest, DownloadsLandWholeOrFail) {
  SignInWithSession(7200);
  const auto video = ParseJson(emulator->ControlGet("data")).GetDictionary("videoAsset");
  const auto target = scratch.Path() / "download";

  // Original and thumbnail by asset id: every byte is the emulator's pattern for that resource,
  // and no media request carries the token.
  for (auto [type, size, seed] : {std::tuple{Original, "size", "seed"}, {Thumbnail, "thumbnailSize", "thumbnailSeed"}}) {
    Await(client->DownloadVideoAsset(Guid(video.GetString("id")), type, kelcore::filesupport::File(target)));
    EXPECT_TRUE(HoldsThePattern(target, video.GetInteger(size), static_cast<int>(video.GetInteger(seed)))) << type;
  }
  for (const auto& media : Logged("/media/")) {
    for (const auto& header : media.GetArray("headers")) EXPECT_NE(header.AsArray().at(0).AsString(), "authorization");
  }

  // 2 GiB in parallel ranges, arriving out of order, into a file in flat memory.
  const std::uint64_t big = kSanitized ? (256ull << 20) : (2ull << 30);
  rusage before{}, after{};
  ::getrusage(RUSAGE_SELF, &before);
  std::atomic<std::uint64_t> written{0};
  Await(client->DownloadFileFromURL(kelcore::ImmutableString(emulator->ApiUrl("/media/synthetic/" + std::to_string(big))),
                                    kelcore::filesupport::File(target),
                                    [&](const DownloadProgress& p) { written = p.bytesWritten; }));
  ::getrusage(RUSAGE_SELF, &after);
  EXPECT_EQ(written.load(), big);
  // Sanitizers keep shadow memory of their own: the bound holds in plain builds.
  EXPECT_LT(kSanitized ? 0 : after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "KiB of peak memory grew";
  EXPECT_TRUE(HoldsThePattern(target, big));
}

}  // namespace
}  // namespace ostriolib

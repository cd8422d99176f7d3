// The client's own rules, on doubles of the auth manager and the service: one token request at
// a time, what a sign-out posts, what happens to work that outlives the client, and how a
// download turns chunks and a final answer into a file and a result.

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "ClientDoubles.h"
#include "ScratchFolders.h"
#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelcore/ResultCodes.h"

namespace ostriolib {
namespace {

using kelcore::async::Future;
using kelcore::classref::AllocateClassInstance;
using namespace std::chrono_literals;

constexpr auto kHangGuard = 30s;  // stops a broken test from hanging; never a timing assertion

class OstrioClientTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { BeginClientProcess(scratch.Path(), "Tests", "ostrio-tests"); }
  void SetUp() override { kelcore::async::InstallMainThreadDispatcher(loop); }
  void TearDown() override { kelcore::async::UninstallMainThreadDispatcher(); }

  // A prepared client: one service, holding "token-1".
  kelcore::classref::InterfaceRef<FakeService> Prepared() {
    auto preparation = client->PrepareQuery();
    auth->AnswerToken("token-1");
    EXPECT_EQ(Outcome(preparation).GetResult(), 0);
    auto created = provider->Created();
    return created.empty() ? nullptr : created.back();
  }

  static inline TemporaryDirectory scratch;
  std::shared_ptr<kelcore::async::MainThreadRunLoop> loop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  kelcore::classref::InterfaceRef<FakeAuthManager> auth = AllocateClassInstance<FakeAuthManager>();
  kelcore::classref::InterfaceRef<FakeServiceProvider> provider = AllocateClassInstance<FakeServiceProvider>();
  std::shared_ptr<OstrioClient> client = OstrioClientTestAccess::Make(auth, provider);
};

TEST_F(OstrioClientTest, OneTokenRequestAtATimeAndAServiceOnlyOnceOneStarts) {
  // A failed token request leaves the service as it is: none yet, so the query fails for want of it.
  auto orphan = client->GetCurrentUser();
  auth->FailToken(kelcore::kErrorNotSignedIn);
  EXPECT_EQ(Outcome(orphan).GetResult(), kelcore::kErrorServiceUnavailable);
  // A service that fails to start is dropped; the next preparation makes a new one.
  provider->nextInitializeResult = kelcore::kErrorFailed;
  auto failed = client->PrepareQuery();
  auth->AnswerToken("token-0");
  const auto failure = Outcome(failed);
  EXPECT_EQ(failure.GetResult(), kelcore::kErrorOperationFailed);
  EXPECT_EQ(failure.Message(), "Could not initialize the OstrioService");
  EXPECT_EQ(failure.Expression(), "kelcore::ResultFailed(result)");
  provider->nextInitializeResult = 0;

  // Still no service: a second query finds a request pending and fails at once.
  auto first = client->GetCurrentUser();
  auto second = client->GetUserAccounts();
  EXPECT_EQ(Outcome(second).GetResult(), kelcore::kErrorNotSignedIn);
  ASSERT_EQ(auth->TokenRequestCount(), 3u);
  auth->AnswerToken("token-1");
  EXPECT_EQ(Outcome(first).GetResult(), 0);
  ASSERT_EQ(provider->Created().size(), 2u);

  // With a service, a query during a pending request goes ahead at once with the current token.
  auto third = client->GetWorkspaceCount(kelcore::utility::Guid());
  auto fourth = client->RunQuery(kelcore::ToU8Str("{ me { id } }"), {});
  EXPECT_EQ(Outcome(fourth).GetResult(), 0);
  ASSERT_EQ(auth->TokenRequestCount(), 4u);
  auth->AnswerToken("token-2");
  EXPECT_EQ(Outcome(third).GetResult(), 0);
  auto service = provider->Created()[1];
  std::lock_guard lock(service->mutex);
  EXPECT_EQ(service->tokens, (std::vector<std::string>{"token-1", "token-2"}));
  EXPECT_EQ(service->queries.size(), 3u);
}

TEST_F(OstrioClientTest, SignOutPostsOnlyWhenSomeoneWasSignedIn) {
  int changes = 0;
  kelcore::messaging::Listener<OstrioUserSignedInChangedMessage> listener(
      client->GetStationID(), [&](const OstrioUserSignedInChangedMessage&) { ++changes; });
  ASSERT_TRUE(Prepared());
  EXPECT_EQ(client->SignOutOstrioUser(), 0);
  EXPECT_EQ(client->SignOutOstrioUser(), kelcore::kErrorNotSignedIn);
  // The service went with the user: a download now finds none.
  EXPECT_EQ(Outcome(client->DownloadFileFromURL(kelcore::ImmutableString("https://media.example/a"),
                                                 kelcore::filesupport::File("/dev/null"))).GetResult(),
            kelcore::kErrorPreconditionFailed);

  // A sign-in that failed posts nothing; one that succeeded posts once, as the sign-out did.
  client->SignInOstrioUser();
  auth->loginCallback(kelcore::kErrorFailed);
  auth->loginCallback(0);
  loop->RunPending();
  EXPECT_EQ(changes, 2);
}

// Run under ThreadSanitizer: queries from several threads while the token expires and the user
// signs out. Every future completes; none crashes the client.
TEST_F(OstrioClientTest, ConcurrentQueriesAcrossExpiryAndSignOut) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  auth->answerAtOnce = "token-n";
  constexpr int kThreads = 4, kPerThread = 50;
  std::atomic<int> completed{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      std::vector<decltype(client->RunQuery({}, {}))> queries;
      for (int i = 0; i < kPerThread; ++i) {
        queries.push_back(client->RunQuery(kelcore::ToU8Str("{ me { id } }"), {}));
        if (t == 0 && i == kPerThread / 4) service->onUnauthenticated({});
        if (t == 1 && i == kPerThread / 2) client->SignOutOstrioUser();
      }
      for (const auto& query : queries) completed += query.WaitFor(kHangGuard);
    });
  }
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(completed, kThreads * kPerThread);
}

// Downloads driven chunk by chunk: the links asked for, what reaches the file and what the future
// says, for each way a download can end.
TEST_F(OstrioClientTest, DownloadsLandChunksAtTheirOffsetsAndSayHowTheyEnded) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  const std::string target = scratch.Path() / "download", url = "https://media.example/video.mp4";
  const auto status = [](int code) { return std::make_shared<kelnet::Response>(code, kelnet::HeaderMap{}, ""); };
  // The rendition links are asked with the documents the emulator knows.
  auth->answerAtOnce = "token-1";
  for (RenditionType rendition : {Original, Thumbnail}) Outcome(client->GetAssetURL({}, rendition));
  EXPECT_EQ(service->queries, (std::vector<std::string>{KnownQuery("GetDownloadURL"), KnownQuery("ThumbnailImageUrl")}));
  // URL, target, whether a request goes out and its answer; the result and message.
  const std::vector<std::tuple<std::string, std::string, bool, std::shared_ptr<kelnet::Response>, int, const char*>> cases = {
      {"", target, false, nullptr, kelcore::kErrorInvalidArgument, "Invalid URL"},
      {url, "/nonexistent-dir/file", false, nullptr, kelcore::kErrorFailed, "Failed to open output file stream"},
      {url, target, true, status(200), 0, ""},
      {url, target, true, status(404), kelcore::kErrorOperationFailed, "Streaming GET failure"},
      {url, target, true, nullptr, kelcore::kErrorNoServerResponse, "Failed to get response from Ostrio server"},
      {url, "/dev/full", true, status(200), kelcore::kErrorOperationFailed, "Output stream write failure"},
  };
  for (const auto& [from, to, sent, answer, code, message] : cases) {
    SCOPED_TRACE(message);
    std::atomic<std::uint64_t> reported{0};
    auto done = client->DownloadFileFromURL(kelcore::ImmutableString(from), kelcore::filesupport::File(to),
                                            [&](const DownloadProgress& p) { reported = p.bytesWritten; });
    // The download starts on this thread, before the call returns.
    const auto downloads = std::exchange(service->downloads, {});
    ASSERT_EQ(downloads.size(), sent ? 1u : 0u);
    if (sent) {
      // Out of order, as parallel ranges arrive; the future waits for the answer.
      for (auto [offset, bytes] : {std::pair<std::size_t, std::string_view>{6, "world"}, {0, "hello "}}) {
        downloads[0].onData({}, bytes.data(), offset, bytes.size(), kelnet::Progress{}, {});
      }
      EXPECT_FALSE(done.IsReady());
      downloads[0].done.SetValue(answer);
    }
    const auto failure = Outcome(done);
    EXPECT_EQ(failure.GetResult(), code);
    EXPECT_EQ(failure.Message(), message);
    if (sent && to == target) {
      std::ifstream in(target, std::ios::binary);
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "hello world");
      EXPECT_EQ(reported.load(), 11u);
    }
  }

  // One that completes after its client is gone names the place hosts know.
  auto done = client->DownloadFileFromURL(kelcore::ImmutableString(url), kelcore::filesupport::File(target));
  client.reset();
  ASSERT_EQ(service->downloads.size(), 1u);
  service->downloads[0].done.SetValue(status(200));
  const auto failure = Outcome(done);
  EXPECT_EQ(failure.GetResult(), kelcore::kErrorPreconditionFailed);
  EXPECT_EQ(failure.SourcePath(), "src/OstrioClient");
  EXPECT_EQ(failure.Line(), 706);
  EXPECT_EQ(failure.Function(), "ostriolib::OstrioClient::DownloadFileFromURL::<lambda_2>::operator ()");
  EXPECT_EQ(failure.Expression(), "!strongThis");
}


}  // namespace
}  // namespace ostriolib

// The client's own rules, on doubles of the auth manager and the service: one token request at
// a time, what a sign-out posts, what happens to work that outlives the client, and how a
// download turns chunks and a final answer into a file and a result.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "ClientDoubles.h"
#include "kelcore/Executor.h"
#include "kelcore/ResultCodes.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {
namespace {

using kelcore::async::Future;
using kelcore::classref::AllocateClassInstance;
using namespace std::chrono_literals;

constexpr auto kHangGuard = 30s;  // stops a broken test from hanging; never a timing assertion

class OstrioClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", "Tests"},
                                                     {"ostriolib.OstrioRedirectURI", "ostrio-tests"}};
    const auto scratch = std::filesystem::temp_directory_path() / ("ostrio-client-test-" + std::to_string(::getpid()));
    for (const char* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
      ::setenv(name, (scratch / name).c_str(), 1);
    }
    ::setenv("OSTRIOLIB_KEYCHAIN", "memory", 1);
    ::setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
    OstrioLibBeginProcess("Acme", "1.0", "7", parameters, 2);
    kelcore::async::InstallMainThreadDispatcher(loop);
    client = OstrioClientTestAccess::Make(auth, provider);
  }
  void TearDown() override { kelcore::async::UninstallMainThreadDispatcher(); }

  template <class T>
  int ResultOf(const Future<T>& future) {
    EXPECT_TRUE(future.WaitFor(kHangGuard));
    return future.GetResult();
  }
  // A prepared client: one service, holding "token-1".
  kelcore::classref::InterfaceRef<FakeService> Prepared() {
    auto preparation = client->PrepareQuery();
    auth->AnswerToken("token-1");
    EXPECT_EQ(ResultOf(preparation), 0);
    auto created = provider->Created();
    return created.empty() ? nullptr : created.back();
  }

  std::shared_ptr<kelcore::async::MainThreadRunLoop> loop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  kelcore::classref::InterfaceRef<FakeAuthManager> auth = AllocateClassInstance<FakeAuthManager>();
  kelcore::classref::InterfaceRef<FakeServiceProvider> provider = AllocateClassInstance<FakeServiceProvider>();
  std::shared_ptr<OstrioClient> client;
};

TEST(OstrioClientInstance, ConcurrentFirstCallsGetOneClient) {
  std::shared_ptr<OstrioClient> seen[2];
  std::thread first([&] { seen[0] = OstrioClient::GetInstance(); });
  std::thread second([&] { seen[1] = OstrioClient::GetInstance(); });
  first.join();
  second.join();
  ASSERT_TRUE(seen[0]);
  EXPECT_EQ(seen[0], seen[1]);
}

TEST_F(OstrioClientTest, OneTokenRequestAtATime) {
  // Fresh client: the second query finds a request pending and no service, and fails at once.
  auto first = client->GetCurrentUser();
  auto second = client->GetUserAccounts();
  EXPECT_EQ(ResultOf(second), kelcore::kErrorNotSignedIn);
  EXPECT_EQ(auth->TokenRequestCount(), 1u);
  auth->AnswerToken("token-1");
  EXPECT_EQ(ResultOf(first), 0);
  ASSERT_EQ(provider->Created().size(), 1u);

  // With a service, a query during a pending request goes ahead at once with the current token.
  auto third = client->GetWorkspaceCount(kelcore::utility::Guid());
  auto fourth = client->RunQuery(kelcore::ToU8Str("{ me { id } }"), {});
  EXPECT_EQ(ResultOf(fourth), 0);
  EXPECT_EQ(auth->TokenRequestCount(), 2u);
  auth->AnswerToken("token-2");
  EXPECT_EQ(ResultOf(third), 0);
  auto service = provider->Created()[0];
  std::lock_guard lock(service->mutex);
  EXPECT_EQ(service->tokens, (std::vector<std::string>{"token-1", "token-2"}));
  EXPECT_EQ(service->queries.size(), 3u);
}

TEST_F(OstrioClientTest, FailedTokenRequestLeavesTheServiceAsItIs) {
  auto query = client->GetCurrentUser();
  auth->FailToken(kelcore::kErrorNotSignedIn);
  // The preparation succeeds; the query fails for want of a service.
  EXPECT_EQ(ResultOf(query), kelcore::kErrorServiceUnavailable);
  EXPECT_TRUE(provider->Created().empty());
}

TEST_F(OstrioClientTest, FailedServiceInitialisationIsRetriedWithANewService) {
  provider->nextInitializeResult = kelcore::kErrorFailed;
  auto failed = client->PrepareQuery();
  auth->AnswerToken("token-1");
  ASSERT_TRUE(failed.WaitFor(kHangGuard));
  try {
    failed.Get();
    FAIL() << "the preparation succeeded without a service";
  } catch (const kelcore::kel_exception& e) {
    EXPECT_EQ(e.GetResult(), kelcore::kErrorOperationFailed);
    EXPECT_EQ(e.Message(), "Could not initialize the OstrioService");
    EXPECT_EQ(e.Expression(), "kelcore::ResultFailed(result)");
  }
  provider->nextInitializeResult = 0;
  auto service = Prepared();
  ASSERT_EQ(provider->Created().size(), 2u);
  EXPECT_EQ(service, provider->Created()[1]);
}

TEST_F(OstrioClientTest, SignOutPostsOnlyWhenSomeoneWasSignedIn) {
  int changes = 0;
  kelcore::messaging::Listener<OstrioUserSignedInChangedMessage> listener(
      client->GetStationID(), [&](const OstrioUserSignedInChangedMessage&) { ++changes; });
  auto service = Prepared();
  ASSERT_TRUE(service);

  EXPECT_EQ(client->SignOutOstrioUser(), 0);
  EXPECT_EQ(client->SignOutOstrioUser(), kelcore::kErrorNotSignedIn);
  loop->RunPending();
  EXPECT_EQ(changes, 1);
  // The service went with the user: a download now finds none.
  EXPECT_EQ(ResultOf(client->DownloadFileFromURL(kelcore::ImmutableString("https://media.example/a"),
                                                 kelcore::filesupport::File("/dev/null"))),
            kelcore::kErrorPreconditionFailed);

  // A sign-in that failed posts nothing; one that succeeded posts once.
  client->SignInOstrioUser();
  auth->loginCallback(kelcore::kErrorFailed);
  auth->loginCallback(0);
  loop->RunPending();
  EXPECT_EQ(changes, 2);
}

TEST_F(OstrioClientTest, TokenExpiryFromAWorkerIsAnnouncedOnTheMainThread) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  std::vector<int> failures;
  int refreshed = 0;
  bool offMain = false;
  kelcore::messaging::Listener<OstrioAccessTokenRefreshedMessage> ok(
      client->GetStationID(), [&](const auto&) { ++refreshed, offMain |= !kelcore::async::IsMainThread(); });
  kelcore::messaging::Listener<OstrioTokenRefreshFailedMessage> failed(
      client->GetStationID(), [&](const OstrioTokenRefreshFailedMessage& m) { failures.push_back(m.Get<1>()); });

  std::thread([&] { service->onUnauthenticated({}); }).join();
  std::thread([&] { auth->AnswerToken("token-2"); }).join();
  ASSERT_TRUE(loop->RunUntil([&] { return refreshed == 1; }, kHangGuard));

  std::thread([&] { service->onUnauthenticated({}); }).join();
  std::thread([&] { auth->FailToken(kelcore::kErrorRefreshRejected); }).join();
  ASSERT_TRUE(loop->RunUntil([&] { return !failures.empty(); }, kHangGuard));
  EXPECT_EQ(failures, std::vector<int>{kelcore::kErrorRefreshRejected});
  EXPECT_FALSE(offMain);

  // After the client is gone its expiry callback does nothing: no token request, no crash.
  const auto requests = auth->TokenRequestCount();
  client.reset();
  service->onUnauthenticated({});
  EXPECT_EQ(auth->TokenRequestCount(), requests);
}

// Run under ThreadSanitizer: queries from several threads while the token expires and the user
// signs out. Every future completes; none crashes the client.
TEST_F(OstrioClientTest, ConcurrentQueriesAcrossExpiryAndSignOut) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  constexpr int kThreads = 4, kPerThread = 50;
  std::vector<Future<kelcore::classref::InterfaceRef<OstrioDictionaryResource>>> futures[kThreads];
  std::atomic<bool> stop{false};
  std::thread tokens([&] {
    // Answers every token request as it comes, whatever asked for it.
    for (std::size_t answered = 1; !stop || answered < auth->TokenRequestCount();) {
      if (answered < auth->TokenRequestCount()) {
        auth->AnswerToken("token-n");
        ++answered;
      } else {
        std::this_thread::yield();
      }
    }
  });
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        futures[t].push_back(client->RunQuery(kelcore::ToU8Str("{ me { id } }"), {}));
        if (t == 0 && i == kPerThread / 4) service->onUnauthenticated({});
        if (t == 1 && i == kPerThread / 2) client->SignOutOstrioUser();
      }
    });
  }
  for (auto& caller : callers) caller.join();
  int completed = 0;
  for (auto& list : futures) {
    for (auto& future : list) completed += future.WaitFor(kHangGuard);
  }
  stop = true;
  tokens.join();
  EXPECT_EQ(completed, kThreads * kPerThread);
}

// A download driven chunk by chunk: what reaches the file and what the future says.
class DownloadTest : public OstrioClientTest {
 protected:
  std::filesystem::path target = std::filesystem::temp_directory_path() /
                                 ("ostrio-client-download-" + std::to_string(::getpid()));
  void TearDown() override {
    std::filesystem::remove(target);
    OstrioClientTest::TearDown();
  }
  std::string FileText() {
    std::ifstream in(target, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static void Chunk(FakeService::Download& download, std::size_t offset, std::string_view bytes) {
    download.onData({}, bytes.data(), offset, bytes.size(), kelnet::Progress{}, {});
  }
  static std::shared_ptr<kelnet::Response> Status(int status) {
    return std::make_shared<kelnet::Response>(status, kelnet::HeaderMap{}, "");
  }
};

TEST_F(DownloadTest, ChunksLandAtTheirOffsetsAndTheAnswerDecides) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  const kelcore::ImmutableString url("https://media.example/video.mp4");
  struct Case {
    const char* name;
    std::shared_ptr<kelnet::Response> answer;
    int code;
    const char* message;
  } cases[] = {
      {"whole", Status(200), 0, ""},
      {"not found", Status(404), kelcore::kErrorOperationFailed, "Streaming GET failure"},
      {"no answer", nullptr, kelcore::kErrorNoServerResponse, "Failed to get response from Ostrio server"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::atomic<std::uint64_t> reported{0};
    auto done = client->DownloadFileFromURL(url, kelcore::filesupport::File(target),
                                            [&](const DownloadProgress& p) { reported = p.bytesWritten; });
    FakeService::Download* download;
    {
      std::lock_guard lock(service->mutex);
      ASSERT_FALSE(service->downloads.empty());
      download = &service->downloads.back();
    }
    Chunk(*download, 6, "world");  // out of order, as parallel ranges arrive
    Chunk(*download, 0, "hello ");
    EXPECT_FALSE(done.IsReady());
    download->done.SetValue(c.answer);
    EXPECT_EQ(ResultOf(done), c.code);
    if (c.code != 0) {
      EXPECT_EQ(kelcore::ExtractMessageFromException(done.GetException()), c.message);
    }
    EXPECT_EQ(FileText(), "hello world");
    EXPECT_EQ(reported.load(), 11u);
  }
}

TEST_F(DownloadTest, RefusedBeforeAnyRequest) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  auto bad = client->DownloadFileFromURL(kelcore::ImmutableString(""), kelcore::filesupport::File(target));
  EXPECT_EQ(ResultOf(bad), kelcore::kErrorInvalidArgument);
  EXPECT_EQ(kelcore::ExtractMessageFromException(bad.GetException()), "Invalid URL");
  auto unwritable = client->DownloadFileFromURL(kelcore::ImmutableString("https://media.example/a"),
                                                kelcore::filesupport::File("/nonexistent-dir/file"));
  EXPECT_EQ(ResultOf(unwritable), kelcore::kErrorFailed);
  EXPECT_EQ(kelcore::ExtractMessageFromException(unwritable.GetException()), "Failed to open output file stream");
  std::lock_guard lock(service->mutex);
  EXPECT_TRUE(service->downloads.empty());
}

TEST_F(DownloadTest, CompletionAfterTheClientIsGoneNamesItsPlace) {
  auto service = Prepared();
  ASSERT_TRUE(service);
  auto done = client->DownloadFileFromURL(kelcore::ImmutableString("https://media.example/a"),
                                          kelcore::filesupport::File(target));
  client.reset();
  {
    std::lock_guard lock(service->mutex);
    ASSERT_EQ(service->downloads.size(), 1u);
  }
  service->downloads.back().done.SetValue(Status(200));
  ASSERT_TRUE(done.WaitFor(kHangGuard));
  try {
    done.Get();
    FAIL() << "completed without its client";
  } catch (const kelcore::kel_exception& e) {
    EXPECT_EQ(e.GetResult(), kelcore::kErrorPreconditionFailed);
    EXPECT_EQ(e.SourcePath(), "src/OstrioClient");
    EXPECT_EQ(e.Line(), 706);
    EXPECT_EQ(e.Function(), "ostriolib::OstrioClient::DownloadFileFromURL::<lambda_2>::operator ()");
    EXPECT_EQ(e.Expression(), "!strongThis");
  }
}

}  // namespace
}  // namespace ostriolib

// The client end to end against the emulator over HTTPS: the token's life and the 2 GiB download.
// The query texts (byte for byte against the emulator's list), bodies, headers and retried
// statuses are the unit tests', broken downloads the transport's, and every query family against
// the seed (the large folder walked to its last page, renditions downloaded byte for byte
// included) the command line's.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <fstream>

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
    emulator = EmulatorProcess::Start();
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
  void TearDown() override { kelcore::async::UninstallMainThreadDispatcher(); }

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

  // A session whose refresh token the service no longer accepts: the refresh is refused, the
  // user signed out, and the host hears of it when the next answer says "unauthenticated". One
  // refresh asked in each part, no more.
  emulator->ControlPost("revoke", "{\"refreshToken\":\"" + SignInWithSession(1800).GetString("refreshToken") + "\"}");
  unauthenticatedOnce();
  ASSERT_TRUE(loop->RunUntil([&] { return !failures.empty(); }, kHangGuard));
  EXPECT_LT(failures[0], 0);
  EXPECT_FALSE(client->IsOstrioUserSignedIn());
  EXPECT_EQ(Logged("/v2/auth/refresh_tokens/").size(), 2u);
  EXPECT_FALSE(offMain);
}

TEST_F(ClientSessionTest, TwoGibibytesLandWholeInFlatMemory) {
  SignInWithSession(7200);
  Await(client->PrepareQuery());  // a download goes through the session's service
  const auto target = scratch.Path() / "download";
  // In parallel ranges, arriving out of order.
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
  // Every byte of the emulator's media pattern (byte i is i % 251) there once, none wrong.
  transport_test::PatternSink sink;
  std::ifstream in(target, std::ios::binary);
  std::vector<char> block(1 << 20);
  for (std::size_t offset = 0; in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0;) {
    sink.OnData(block.data(), offset, static_cast<std::size_t>(in.gcount()));
    offset += static_cast<std::size_t>(in.gcount());
  }
  EXPECT_TRUE(sink.Complete(big));
}

}  // namespace
}  // namespace ostriolib

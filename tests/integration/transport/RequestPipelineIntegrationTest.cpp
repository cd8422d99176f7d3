// POST through kelnet and ServiceBase against the emulator over HTTPS: what crosses the wire,
// retries of real fault answers, the authorization callback, throttling under load, TLS, and
// shutdown with requests in flight.

#include <gtest/gtest.h>

#include <atomic>

#include "kelcore/ResultCodes.h"
#include "kelnet/Constants.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using namespace std::chrono_literals;
using kelappsupport::cloudservice::GetDefaultRetryScheduler;
using kelappsupport::cloudservice::GetDefaultTransport;
using kelappsupport::cloudservice::IRetryScheduler;
using kelappsupport::cloudservice::ITransport;
using kelappsupport::cloudservice::RetryPolicy;
using kelappsupport::cloudservice::ServiceBase;
using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::Awaited;

constexpr const char* kQuery = R"({"query":"query Me { me { id } }"})";

class RequestPipelineIntegrationTest : public transport_test::EmulatorFixture {
 protected:
  void SetUp() override {
    EmulatorFixture::SetUp();
    service.ConfigureCABundle(emulator->CaPath());
    RetryPolicy fast;
    fast.initialBackoff = 5ms;
    fast.maxBackoff = 20ms;
    service.ConfigureRetryPolicy(fast);
    service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  }

  std::shared_ptr<kelnet::Response> Post(const std::string& body = kQuery,
                                         kelnet::HeaderMap headers = {{"content-type", "application/json"}}) {
    Awaited awaited;
    EXPECT_EQ(service.HttpPost(Guid::CreateUnique(), awaited.Completion(), ImmutableString(GraphQL()),
                               kelcore::allocator::RecycledMemory::Copy(body), headers, kelnet::Configuration(), true),
              0);
    return awaited.Get();
  }
  static std::string GraphQL() { return emulator->ApiUrl("/graphql"); }

  ServiceBase service;
};

TEST_F(RequestPipelineIntegrationTest, PostCrossesTheWireExactly) {
  const std::string token = "Bearer eyJ.test.token";
  service.SetAuthToken(ImmutableString(token), kelnet::kHEADER_AUTHORIZATION);
  // Multi-byte UTF-8 and JSON escapes must arrive byte for byte.
  const std::string body = R"({"query":"query Me { me { id } }","variables":{"note":"ünïcødé \"q\" \\ \t"}})";
  auto response = Post(body, {{"content-type", "application/json"}, {"x-ostrio-client", "Ostrio/Tests/1.2"}});
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_EQ(response->HttpVersion(), "2");
  EXPECT_FALSE(response->FirstHeader("content-type").empty());
  for (const auto& [name, value] : response->Headers()) {
    for (char c : name.View()) EXPECT_FALSE(c >= 'A' && c <= 'Z') << name;
  }

  auto requests = Requests();
  ASSERT_EQ(requests.size(), 1u);
  auto entry = requests[0].AsDictionary();
  EXPECT_EQ(entry.GetString("method"), "POST");
  EXPECT_EQ(entry.GetString("path"), "/graphql");
  EXPECT_EQ(entry.GetString("body"), body);
  std::multimap<std::string, std::string> sent;
  for (const auto& header : entry.GetArray("headers")) {
    auto pair = header.AsArray();
    sent.emplace(pair[0].AsString(), pair[1].AsString());
  }
  EXPECT_EQ(sent.count("content-type"), 1u);
  EXPECT_EQ(sent.find("content-type")->second, "application/json");
  EXPECT_EQ(sent.find("x-ostrio-client")->second, "Ostrio/Tests/1.2");
  EXPECT_EQ(sent.count("authorization"), 1u);
  EXPECT_EQ(sent.find("authorization")->second, token);
  EXPECT_EQ(sent.find("content-length")->second, std::to_string(body.size()));
  EXPECT_EQ(sent.count("expect"), 0u);
}

TEST_F(RequestPipelineIntegrationTest, RecoverableFaultsAreRetriedThenReported) {
  for (int status : {502, 503, 504}) Fault(R"({"route":"graphql","status":)" + std::to_string(status) + "}");
  auto response = Post();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_EQ(Requests().size(), 4u);

  RetryPolicy three;
  three.maxAttempts = 3;
  three.initialBackoff = 5ms;
  service.ConfigureRetryPolicy(three);
  Fault(R"({"route":"graphql","status":503,"count":10})");
  response = Post();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 503);
  EXPECT_NE(emulator->ControlGet("faults").find(R"("remaining":7)"), std::string::npos);
}

// The real timer, but every wait it is asked for is written down and shortened to nothing.
class RecordingScheduler : public IRetryScheduler {
 public:
  std::chrono::steady_clock::time_point Now() override { return inner->Now(); }
  std::chrono::system_clock::time_point WallNow() override { return inner->WallNow(); }
  bool ScheduleAfter(std::chrono::milliseconds delay, std::function<void()> task) override {
    requested.push_back(delay);
    return inner->ScheduleAfter(0ms, std::move(task));
  }
  double Jitter() override { return inner->Jitter(); }
  std::shared_ptr<IRetryScheduler> inner = GetDefaultRetryScheduler();
  std::vector<std::chrono::milliseconds> requested;
};

TEST_F(RequestPipelineIntegrationTest, RetryAfterFromTheWireIsHonoured) {
  auto scheduler = std::make_shared<RecordingScheduler>();
  service.SetRetryScheduler(scheduler);
  Fault(R"({"route":"graphql","status":503,"retryAfter":"2"})");
  auto response = Post();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  ASSERT_EQ(scheduler->requested.size(), 1u);
  EXPECT_GE(scheduler->requested[0], 2000ms);
}

TEST_F(RequestPipelineIntegrationTest, UnauthorizedAnswerFiresTheCallback) {
  std::promise<std::string> called;
  service.ConfigureForAuthorizationProcessor(
      Guid::CreateUnique(), [&](const ImmutableString& text) { called.set_value(text.ToStdString()); }, 1);
  Fault(R"({"route":"graphql","status":401})");
  auto response = Post();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 401);
  auto future = called.get_future();
  ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(future.get(), "");
}

// Counts the requests that are on the wire at once, as the pipeline hands them to kelnet.
class CountingTransport : public ITransport {
 public:
  bool Post(const Guid& id, kelnet::Completion completion, const ImmutableString& url,
            std::shared_ptr<const kelcore::allocator::RecycledMemory> body, const kelnet::HeaderMap& headers,
            const kelnet::Configuration& configuration) override {
    const int now = ++inFlight;
    int seen = maxInFlight.load();
    while (now > seen && !maxInFlight.compare_exchange_weak(seen, now)) {
    }
    auto counted = [this, completion = std::move(completion)](const Guid& requestId, const auto& response) {
      --inFlight;
      completion(requestId, response);
    };
    if (inner->Post(id, std::move(counted), url, std::move(body), headers, configuration)) return true;
    --inFlight;
    return false;
  }
  bool StreamingGet(const Guid& id, kelnet::DataCallback onData, kelnet::Completion completion,
                    const ImmutableString& url, const kelnet::HeaderMap& headers,
                    const kelnet::Configuration& configuration) override {
    return inner->StreamingGet(id, std::move(onData), std::move(completion), url, headers, configuration);
  }
  void Cancel(const Guid& id) override { inner->Cancel(id); }

  std::shared_ptr<ITransport> inner = GetDefaultTransport();
  std::atomic<int> inFlight{0};
  std::atomic<int> maxInFlight{0};
};

TEST_F(RequestPipelineIntegrationTest, ThrottlingHoldsUnderTwoHundredConcurrentRequests) {
  auto counting = std::make_shared<CountingTransport>();
  service.SetTransport(counting);
  ASSERT_EQ(service.ConfigureRequestThrottling(8, 8), 0);
  Fault(R"({"route":"graphql","delayMs":20,"count":200})");
  std::vector<Awaited> awaited(200);
  for (auto& one : awaited) {
    ASSERT_EQ(service.HttpPost(Guid::CreateUnique(), one.Completion(), ImmutableString(GraphQL()),
                               kelcore::allocator::RecycledMemory::Copy(kQuery), {{"content-type", "application/json"}},
                               kelnet::Configuration(), true),
              0);
  }
  int ok = 0;
  for (auto& one : awaited) {
    auto response = one.Get();
    ok += response && response->StatusCode() == 200;
  }
  EXPECT_EQ(ok, 200);
  EXPECT_LE(counting->maxInFlight.load(), 8);
  EXPECT_EQ(Requests().size(), 200u);
}

// Node's HTTP/2 server closes a busy connection after about a thousand streams from this curl;
// the streams it never took up must come back on a new connection, not as failures.
TEST_F(RequestPipelineIntegrationTest, StreamsRefusedByAClosingConnectionAreSentAgain) {
  constexpr int kRequests = 2500;
  std::atomic<int> issued{0}, ok{0};
  std::promise<void> done;
  std::atomic<int> finished{0};
  const auto body = kelcore::allocator::RecycledMemory::Copy(kQuery);
  const kelnet::HeaderMap headers{{"content-type", "application/json"}};
  std::function<void()> next = [&] {
    if (issued.fetch_add(1) >= kRequests) return;
    ASSERT_TRUE(kelnet::POST(
        Guid::CreateUnique(),
        [&](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
          ok += response && response->StatusCode() == 200;
          next();
          if (++finished == kRequests) done.set_value();
        },
        ImmutableString(GraphQL()), body, headers, Trusted()));
  };
  for (int i = 0; i < 16; ++i) next();
  ASSERT_EQ(done.get_future().wait_for(5min), std::future_status::ready);
  EXPECT_EQ(ok.load(), kRequests);
}

TEST_F(RequestPipelineIntegrationTest, PeerIsAlwaysVerified) {
  // A request's own bundle wins over the one its service trusts.
  kelnet::Configuration systemOnly;
  systemOnly.caBundlePath = "/etc/ssl/certs/ca-certificates.crt";  // trusts the world, not the emulator
  Awaited awaited;
  ASSERT_EQ(service.HttpPost(Guid::CreateUnique(), awaited.Completion(), ImmutableString(GraphQL()), nullptr, {},
                             systemOnly, true),
            0);
  EXPECT_FALSE(awaited.Get());
  EXPECT_TRUE(Requests().empty());

  kelnet::Configuration insecure;
  insecure.verifyPeer = false;
  EXPECT_FALSE(kelnet::POST(Guid::CreateUnique(), [](auto&, auto&) {}, ImmutableString(GraphQL()), nullptr, {},
                            insecure));
}

// Shutdown is for good, so these run in a child process of their own.
TEST_F(RequestPipelineIntegrationTest, ShutdownCompletesEverythingInFlight) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Fault(R"({"route":"graphql","delayMs":60000,"count":100})");
        Fault(R"({"route":"media","bytesPerSecond":1000})");
        auto* service = new ServiceBase();
        service->ConfigureCABundle(emulator->CaPath());
        service->ConfigureRequestThrottling(2, 2);
        auto* completions = new std::atomic<int>(0);
        auto* answered = new std::atomic<int>(0);
        auto count = [=](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
          ++*completions;
          if (response) ++*answered;
        };
        // The download goes first, so it holds one of the two slots and is mid-body at shutdown.
        auto* streaming = new std::promise<void>();
        auto* once = new std::atomic<bool>(false);
        service->HttpStreamingGet(
            Guid::CreateUnique(),
            [=](auto&, auto, auto, auto, auto&, auto&) {
              if (!once->exchange(true)) streaming->set_value();
            },
            count, ImmutableString(emulator->ApiUrl("/media/synthetic/100000000")), {}, {}, true);
        for (int i = 0; i < 10; ++i) {
          service->HttpPost(Guid::CreateUnique(), count, ImmutableString(GraphQL()), nullptr, {}, {}, true);
        }
        if (streaming->get_future().wait_for(60s) != std::future_status::ready) std::exit(2);
        kelnet::Shutdown();
        kelnet::Shutdown();
        const bool refused = !kelnet::POST(Guid::CreateUnique(), count, ImmutableString(GraphQL()), nullptr, {}, {}) &&
                             service->HttpPost(Guid::CreateUnique(), count, ImmutableString(GraphQL()), nullptr, {}, {},
                                               true) < 0;
        std::exit(*completions == 11 && *answered == 0 && refused ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(RequestPipelineIntegrationTest, ProcessExitWithRequestsInFlightDoesNotHang) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Fault(R"({"route":"graphql","delayMs":60000,"count":10})");
        auto* service = new ServiceBase();
        service->ConfigureCABundle(emulator->CaPath());
        for (int i = 0; i < 10; ++i) {
          service->HttpPost(Guid::CreateUnique(), [](auto&, auto&) {}, ImmutableString(GraphQL()), nullptr, {}, {},
                            true);
        }
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

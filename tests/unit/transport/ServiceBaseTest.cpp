// The request pipeline against a hand-driven transport and clock: throttling, retry and back-off,
// the authorization processor, and the headers each attempt carries.

#include <gtest/gtest.h>

#include <future>
#include <random>
#include <thread>

#include "kelappsupport/ServiceBase.h"
#include "kelcore/ResultCodes.h"
#include "kelnet/Constants.h"
#include "TransportTestSupport.h"
#include "kelnet/Http.h"

namespace {

using namespace std::chrono_literals;
using kelappsupport::cloudservice::RetryPolicy;
using kelappsupport::cloudservice::ServiceBase;
using kelcore::ImmutableString;
using transport_test::FakeRequestPtr;
using transport_test::FakeScheduler;
using transport_test::FakeTransport;

class TestService : public ServiceBase {
 public:
  kelnet::HeaderMap common;

 protected:
  void AddCommonHeaders(kelnet::HeaderMap& headers) override { headers.insert(common.begin(), common.end()); }
};

struct Outcome {
  int calls = 0;
  std::shared_ptr<kelnet::Response> response;
};

class ServiceBaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service.SetTransport(transport);
    service.SetRetryScheduler(scheduler);
  }

  int Post(Outcome& outcome, const std::string& url = "https://api.example.test/graphql",
           std::shared_ptr<const kelcore::allocator::RecycledMemory> body = nullptr, kelnet::HeaderMap headers = {}) {
    return service.HttpPost(
        Guid::CreateUnique(),
        [&outcome](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
          ++outcome.calls;
          outcome.response = response;
        },
        ImmutableString(url), std::move(body), headers, kelnet::Configuration(), true);
  }

  using Guid = kelcore::utility::Guid;
  std::shared_ptr<FakeTransport> transport = std::make_shared<FakeTransport>();
  std::shared_ptr<FakeScheduler> scheduler = std::make_shared<FakeScheduler>();
  TestService service;
};

TEST_F(ServiceBaseTest, ThrottlingHoldsBothLimitsAndServesEachHostInOrder) {
  ASSERT_EQ(service.ConfigureRequestThrottling(4, 2), 0);
  const std::vector<std::string> hosts = {"https://a.test/x", "https://b.test/x", "https://c.test:8443/x"};
  std::vector<Outcome> outcomes(200);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    kelnet::HeaderMap headers{{"x-seq", std::to_string(i)}};
    ASSERT_EQ(Post(outcomes[i], hosts[i % hosts.size()], nullptr, headers), 0);
  }
  std::mt19937 random(7);
  while (transport->PendingCount() > 0) {
    // Answer in a shuffled order, so slots free up unpredictably.
    auto first = transport->Take(random() % 2 == 0);
    transport->Answer(first, 200);
  }
  EXPECT_LE(transport->maxInFlight, 4);
  EXPECT_LE(transport->maxInFlightPerHost, 2);
  EXPECT_EQ(transport->all.size(), 200u);
  std::map<std::string, int> lastSeq;
  for (const auto& request : transport->all) {
    const int seq = std::stoi(request->Header("x-seq"));
    auto [it, first] = lastSeq.emplace(request->Host(), seq);
    if (!first) {
      EXPECT_GT(seq, it->second) << "host " << request->Host() << " served out of order";
    }
    it->second = seq;
  }
  for (const auto& outcome : outcomes) EXPECT_EQ(outcome.calls, 1);
}

TEST_F(ServiceBaseTest, RecoverableStatusesAreRetriedWithTheSameBodyAndTheNewestToken) {
  service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  service.SetAuthToken("Bearer one", kelnet::kHEADER_AUTHORIZATION);
  auto body = kelcore::allocator::RecycledMemory::Copy(R"({"query":"{ me { id } }"})");
  Outcome outcome;
  ASSERT_EQ(Post(outcome, "https://api.example.test/graphql", body), 0);

  for (int status : {502, 503, 504}) {
    auto request = transport->Take();
    ASSERT_TRUE(request);
    transport->Answer(request, status);
    if (status == 503) service.SetAuthToken("Bearer two", kelnet::kHEADER_AUTHORIZATION);
    ASSERT_TRUE(scheduler->RunNext());
  }
  auto last = transport->Take();
  ASSERT_TRUE(last);
  transport->Answer(last, 200, {}, "{}");
  ASSERT_EQ(outcome.calls, 1);
  EXPECT_EQ(outcome.response->StatusCode(), 200);

  ASSERT_EQ(transport->all.size(), 4u);
  for (const auto& request : transport->all) EXPECT_EQ(request->body.get(), body.get()) << "body was copied";
  EXPECT_EQ(transport->all[1]->Header("authorization"), "Bearer one");
  EXPECT_EQ(transport->all[3]->Header("authorization"), "Bearer two");
  // Exponential from 250 ms, jitter 0.5 → three quarters of each step.
  EXPECT_EQ(scheduler->delays, (std::vector<std::chrono::milliseconds>{187ms, 375ms, 750ms}));
}

TEST_F(ServiceBaseTest, RetriesStopAtTheirLimitsWithTheLastAnswer) {
  service.ConfigureForRecoverableErrorProcessor({503});
  RetryPolicy policy;
  policy.maxAttempts = 3;
  service.ConfigureRetryPolicy(policy);

  Outcome exhausted;
  Post(exhausted);
  for (int i = 0; i < 3; ++i) {
    transport->Answer(transport->Take(), 503, {{"x-attempt", std::to_string(i)}});
    scheduler->RunNext();
  }
  ASSERT_EQ(exhausted.calls, 1);
  EXPECT_EQ(exhausted.response->StatusCode(), 503);
  EXPECT_EQ(exhausted.response->FirstHeader("x-attempt").View(), "2");
  EXPECT_EQ(transport->all.size(), 3u);

  // The server's Retry-After is a floor; one beyond maxRetryAfter ends the retries at once.
  Outcome honoured;
  Post(honoured);
  transport->Answer(transport->Take(), 503, {{"retry-after", "7"}});
  EXPECT_EQ(scheduler->delays.back(), 7000ms);
  scheduler->RunNext();
  transport->Answer(transport->Take(), 200);
  EXPECT_EQ(honoured.response->StatusCode(), 200);

  // A date is read against the scheduler's wall clock, to the second.
  scheduler->SetWallNow(std::chrono::system_clock::from_time_t(784111777));  // Sun, 06 Nov 1994 08:49:37 GMT
  Outcome dated;
  Post(dated);
  transport->Answer(transport->Take(), 503, {{"retry-after", "Sun, 06 Nov 1994 08:50:07 GMT"}});
  EXPECT_EQ(scheduler->delays.back(), 30000ms);
  scheduler->RunNext();
  transport->Answer(transport->Take(), 200);
  EXPECT_EQ(dated.response->StatusCode(), 200);

  // Waits beyond maxRetryAfter, however far off (a date past what a clock can count in
  // nanoseconds included), end the retries at once.
  for (const char* far : {"3600", "Fri, 31 Dec 9999 23:59:59 GMT"}) {
    Outcome tooLong;
    Post(tooLong);
    transport->Answer(transport->Take(), 503, {{"retry-after", far}});
    ASSERT_EQ(tooLong.calls, 1) << far;
    EXPECT_EQ(tooLong.response->StatusCode(), 503);
  }

  // No retry starts later than maxTotal after the first attempt.
  policy.maxAttempts = 100;
  policy.maxTotal = 1000ms;
  service.ConfigureRetryPolicy(policy);
  Outcome budget;
  Post(budget);
  int attempts = 0;
  while (budget.calls == 0) {
    transport->Answer(transport->Take(), 503);
    ++attempts;
    scheduler->RunNext();
  }
  EXPECT_EQ(attempts, 3);  // waits of 187 + 375 ms fit in a second; the next 750 ms does not
}

TEST_F(ServiceBaseTest, StatusesOutsideTheRecoverableListReachTheCallerAfterOneAttempt) {
  service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  for (int status : {500, 501, 505}) {
    Outcome outcome;
    Post(outcome);
    transport->Answer(transport->Take(), status, {{"retry-after", "1"}});
    EXPECT_EQ(outcome.calls, 1) << status;
    ASSERT_TRUE(outcome.response) << status;
    EXPECT_EQ(outcome.response->StatusCode(), status);
    EXPECT_FALSE(scheduler->RunNext()) << status << " was scheduled for a retry";
    EXPECT_EQ(transport->PendingCount(), 0u) << status;
  }
  EXPECT_EQ(transport->all.size(), 3u);
}

TEST(RetryAfterTest, SecondsAndDates) {
  using kelappsupport::cloudservice::ParseRetryAfter;
  const auto now = std::chrono::system_clock::from_time_t(784111777);  // Sun, 06 Nov 1994 08:49:37 GMT
  EXPECT_EQ(ParseRetryAfter(" 120 ", now), 120000ms);
  EXPECT_EQ(ParseRetryAfter("Sun, 06 Nov 1994 08:50:07 GMT", now), 30000ms);
  EXPECT_EQ(ParseRetryAfter("Thu, 01 Jan 1970 00:00:00 GMT", now), 0ms);
  for (const char* bad : {"", "-5", "1.5", "soon", "Sun, 06 Nov 1994 08:50:07 UTC", "Sun, 06 Foo 1994 08:50:07 GMT",
                          "Sun, 32 Nov 1994 08:50:07 GMT", "Sunday, 06-Nov-94 08:49:37 GMT"}) {
    EXPECT_FALSE(ParseRetryAfter(bad, now)) << bad;
  }
}

TEST_F(ServiceBaseTest, UnauthorizedAnswersNotifyOnAnExecutorOncePerAnswer) {
  std::mutex mutex;
  std::vector<std::pair<std::string, std::thread::id>> calls;
  std::promise<void> twice;
  service.ConfigureForAuthorizationProcessor(Guid::CreateUnique(), [&](const ImmutableString& text) {
    std::lock_guard lock(mutex);
    calls.emplace_back(text.ToStdString(), std::this_thread::get_id());
    if (calls.size() == 2) twice.set_value();
  }, kelappsupport::cloudservice::kConnectivityErrorReport);
  service.ConfigureForRecoverableErrorProcessor({503});

  Outcome first, second;
  Post(first);
  Post(second);
  transport->Answer(transport->Take(), 401);
  transport->Answer(transport->Take(), 401);
  ASSERT_EQ(twice.get_future().wait_for(30s), std::future_status::ready);
  EXPECT_EQ(first.response->StatusCode(), 401);  // not retried, passed on
  EXPECT_EQ(transport->all.size(), 2u);
  std::lock_guard lock(mutex);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].first, "");
  EXPECT_NE(calls[0].second, std::this_thread::get_id());
}

TEST_F(ServiceBaseTest, ConnectivityFailuresAreRetriedOnlyWhenAskedTo) {
  Outcome reported;
  Post(reported);
  transport->Answer(transport->Take(), nullptr);
  EXPECT_EQ(reported.calls, 1);
  EXPECT_FALSE(reported.response);

  service.ConfigureForAuthorizationProcessor(Guid::CreateUnique(), nullptr,
                                             kelappsupport::cloudservice::kConnectivityErrorRetry);
  Outcome retried;
  Post(retried);
  transport->Answer(transport->Take(), nullptr);
  ASSERT_TRUE(scheduler->RunNext());
  transport->Answer(transport->Take(), 200);
  EXPECT_EQ(retried.response->StatusCode(), 200);
}

TEST_F(ServiceBaseTest, HeadersOfEachAttempt) {
  service.common = {{"apollographql-client-name", "ostrio"}, {"content-type", "application/json; charset=utf-8"}};
  service.SetAuthToken("Bearer t", kelnet::kHEADER_AUTHORIZATION);
  Outcome outcome;
  Post(outcome, "https://api.example.test/graphql", nullptr,
       {{"Content-Type", "application/x-www-form-urlencoded"}, {"authorization", "Bearer stale"}});
  auto request = transport->Take();
  // The caller's header beats the common one of the same name; the token replaces the caller's.
  EXPECT_EQ(request->headers.count("content-type"), 0u);
  EXPECT_EQ(request->Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request->Header("apollographql-client-name"), "ostrio");
  EXPECT_EQ(request->headers.count("authorization"), 1u);
  EXPECT_EQ(request->Header("authorization"), "Bearer t");
  transport->Answer(request, 200);

  // Unauthorised requests carry no token; a header that could split the request is refused.
  service.HttpPost(Guid::CreateUnique(), [](auto&, auto&) {}, "https://api.example.test/x", nullptr, {}, {}, false);
  request = transport->Take();
  EXPECT_TRUE(request->Header("authorization").empty());
  transport->Answer(request, 200);
  EXPECT_LT(service.SetAuthToken("Bearer a\r\nx-evil: 1", kelnet::kHEADER_AUTHORIZATION), 0);
}

TEST_F(ServiceBaseTest, TheTokenGoesOnlyWhereItIsMeantTo) {
  service.SetAuthToken("Bearer t", kelnet::kHEADER_AUTHORIZATION);
  auto tokenSentTo = [&](const char* url) {
    service.HttpPost(Guid::CreateUnique(), [](auto&, auto&) {}, url, nullptr, {}, {}, true);
    auto request = transport->Take();
    transport->Answer(request, 200);
    return !request->Header("authorization").empty();
  };
  EXPECT_TRUE(tokenSentTo("https://cdn.elsewhere.test/a"));  // no hosts named yet
  EXPECT_FALSE(tokenSentTo("http://api.example.test/graphql"));
  EXPECT_TRUE(tokenSentTo("http://127.0.0.1:8443/graphql"));
  EXPECT_TRUE(tokenSentTo("http://127.255.0.9/graphql"));
  EXPECT_TRUE(tokenSentTo("http://[::1]:8443/graphql"));
  EXPECT_TRUE(tokenSentTo("http://api.ostrio.localhost:8443/graphql"));
  // Names that only look like this machine.
  EXPECT_FALSE(tokenSentTo("http://127.attacker.example/"));
  EXPECT_FALSE(tokenSentTo("http://127.0.0.1.attacker.example/"));
  EXPECT_FALSE(tokenSentTo("http://localhost.attacker.example/"));

  ASSERT_EQ(service.ConfigureAuthorizedHosts({".Example.test:8443"}), 0);
  EXPECT_TRUE(tokenSentTo("https://api.example.test/graphql"));
  EXPECT_TRUE(tokenSentTo("https://example.test/"));
  EXPECT_FALSE(tokenSentTo("https://cdn.elsewhere.test/a"));
  EXPECT_FALSE(tokenSentTo("https://badexample.test/"));
  EXPECT_FALSE(tokenSentTo("https://example.test.evil.test/"));
  EXPECT_LT(service.ConfigureAuthorizedHosts({"."}), 0);
}

TEST_F(ServiceBaseTest, RefusedRequestsReportAtOnceAndNeverComplete) {
  Outcome outcome;
  EXPECT_LT(Post(outcome, "not a url"), 0);
  transport->refuse = true;
  EXPECT_LT(Post(outcome), 0);
  EXPECT_EQ(outcome.calls, 0);

  // Requests waiting in the queue when the transport goes away complete, with no answer.
  transport->refuse = false;
  service.ConfigureRequestThrottling(1, 1);
  Outcome running, queued;
  Post(running);
  Post(queued);
  transport->refuse = true;
  transport->Answer(transport->Take(), nullptr);
  EXPECT_EQ(running.calls, 1);
  EXPECT_EQ(queued.calls, 1);
  EXPECT_FALSE(queued.response);
}

}  // namespace

namespace {

using namespace std::chrono_literals;

// With kelnet's own timer (the fake scheduler runs timers on the test thread and would hide it):
// a request that a retry or a resume finishes still completes off the network thread.
TEST(CallbackThreadTest, CompletionsReachedThroughATimerStayOffTheNetworkThread) {
  for (const bool streaming : {false, true}) {
    auto transport = std::make_shared<transport_test::FakeTransport>();
    kelappsupport::cloudservice::ServiceBase service;
    service.SetTransport(transport);
    service.ConfigureForRecoverableErrorProcessor({503});
    std::promise<bool> onNetworkThread;
    auto completion = [&](const kelcore::utility::Guid&, const std::shared_ptr<kelnet::Response>&) {
      onNetworkThread.set_value(kelnet::IsNetworkThread());
    };
    const auto id = kelcore::utility::Guid::CreateUnique();
    if (streaming) {
      ASSERT_EQ(service.HttpStreamingGet(id, [](auto&, auto, auto, auto, auto&, auto&) {}, completion,
                                         "https://media.example.test/a", {}, {}, false),
                0);
      // Ten bytes, then the connection breaks: the range resumes from a timer, and that is refused.
      auto probe = transport->Take();
      ASSERT_TRUE(probe);
      const char bytes[10] = {};
      probe->onData(probe->id, bytes, 0, sizeof bytes, kelnet::Progress{}, {{"content-range", "bytes 0-9/100"}});
      transport->refuse = true;
      transport->Answer(probe, nullptr);
    } else {
      ASSERT_EQ(service.HttpPost(id, completion, "https://api.example.test/graphql", nullptr, {}, {}, false), 0);
      transport->refuse = true;  // the retry is refused
      transport->Answer(transport->Take(), 503);
    }
    auto future = onNetworkThread.get_future();
    ASSERT_EQ(future.wait_for(60s), std::future_status::ready) << streaming;
    EXPECT_FALSE(future.get()) << (streaming ? "download" : "post");
  }
  // Nor does kelnet run a POST's own completion there (nothing listens on port 1).
  std::promise<bool> onNetworkThread;
  ASSERT_TRUE(kelnet::POST(
      kelcore::utility::Guid::CreateUnique(),
      [&](const auto&, const auto&) { onNetworkThread.set_value(kelnet::IsNetworkThread()); },
      "http://127.0.0.1:1/", nullptr, {}, {}));
  auto future = onNetworkThread.get_future();
  ASSERT_EQ(future.wait_for(60s), std::future_status::ready);
  EXPECT_FALSE(future.get());
}

}  // namespace

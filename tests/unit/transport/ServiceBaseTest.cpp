// The request pipeline against a hand-driven transport and clock: throttling, which answers are
// retried and when, the authorization processor, and the headers each attempt carries.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <random>
#include <thread>

#include "TransportTestSupport.h"
#include "kelappsupport/ServiceBase.h"
#include "kelnet/Constants.h"

namespace {

using namespace std::chrono_literals;
using kelappsupport::cloudservice::RetryPolicy;
using kelappsupport::cloudservice::ServiceBase;
using kelcore::ImmutableString;
using kelcore::utility::Guid;
using transport_test::FakeTransport;

constexpr const char* kApi = "https://api.example.test/graphql";

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

  int Post(Outcome& outcome, const std::string& url = kApi,
           std::shared_ptr<const kelcore::allocator::RecycledMemory> body = nullptr, kelnet::HeaderMap headers = {},
           bool authorize = true) {
    return service.HttpPost(
        Guid::CreateUnique(),
        [&outcome](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
          ++outcome.calls;
          outcome.response = response;
        },
        ImmutableString(url), std::move(body), headers, kelnet::Configuration(), authorize);
  }

  // Answers the oldest request (status 0: with no answer at all); true when that scheduled a
  // retry, which then starts.
  bool Fail(int status, kelnet::HeaderMap headers = {}) {
    auto request = transport->Take();
    EXPECT_TRUE(request) << "no request to answer";
    if (!request) return false;
    transport->Answer(request, status ? std::make_shared<kelnet::Response>(status, std::move(headers), "") : nullptr);
    return scheduler->RunNext();
  }

  std::shared_ptr<FakeTransport> transport = std::make_shared<FakeTransport>();
  std::shared_ptr<transport_test::FakeScheduler> scheduler = std::make_shared<transport_test::FakeScheduler>();
  TestService service;
};

TEST_F(ServiceBaseTest, ThrottlingHoldsBothLimitsAndServesEachHostInOrder) {
  ASSERT_EQ(service.ConfigureRequestThrottling(4, 2), 0);
  const std::vector<std::string> hosts = {"https://a.test/x", "https://b.test/x", "https://c.test:8443/x"};
  std::vector<Outcome> outcomes(200);
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    ASSERT_EQ(Post(outcomes[i], hosts[i % hosts.size()], nullptr, {{"x-seq", std::to_string(i)}}), 0);
  }
  std::mt19937 random(7);
  // Answered in a shuffled order, so slots free up unpredictably.
  while (transport->PendingCount() > 0) transport->Answer(transport->Take(random() % 2 == 0), 200);
  EXPECT_LE(transport->maxInFlight, 4);
  EXPECT_LE(transport->maxInFlightPerHost, 2);
  EXPECT_EQ(transport->all.size(), 200u);
  std::map<std::string, int> lastSeq;
  for (const auto& request : transport->all) {
    const int seq = std::stoi(request->Header("x-seq"));
    auto [it, first] = lastSeq.emplace(request->Host(), seq);
    EXPECT_TRUE(first || seq > it->second) << "host " << request->Host() << " served out of order";
    it->second = seq;
  }
  for (const auto& outcome : outcomes) EXPECT_EQ(outcome.calls, 1);
}

// Up to maxAttempts attempts (here four), the last answer reaching the caller.
TEST_F(ServiceBaseTest, OnlyRecoverableStatusesAreRetriedEachWithTheSameBodyAndTheNewestToken) {
  service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  RetryPolicy policy;
  policy.maxAttempts = 4;
  service.ConfigureRetryPolicy(policy);
  service.SetAuthToken("Bearer one", kelnet::kHEADER_AUTHORIZATION);
  auto body = kelcore::allocator::RecycledMemory::Copy(R"({"query":"{ me { id } }"})");
  Outcome outcome;
  ASSERT_EQ(Post(outcome, kApi, body), 0);
  for (int status : {502, 503, 504}) {
    if (status == 504) service.SetAuthToken("Bearer two", kelnet::kHEADER_AUTHORIZATION);
    ASSERT_TRUE(Fail(status)) << status;
  }
  EXPECT_FALSE(Fail(503, {{"x-attempt", "4"}}));
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->FirstHeader("x-attempt").View(), "4");
  ASSERT_EQ(transport->all.size(), 4u);
  for (const auto& request : transport->all) EXPECT_EQ(request->body.get(), body.get()) << "body was copied";
  EXPECT_EQ(transport->all[2]->Header("authorization"), "Bearer one");
  EXPECT_EQ(transport->all[3]->Header("authorization"), "Bearer two");
  // Exponential from 250 ms, jitter 0.5: three quarters of each step.
  EXPECT_EQ(scheduler->delays, (std::vector<std::chrono::milliseconds>{187ms, 375ms, 750ms}));

  // Any other status, and no answer at all, reaches the caller after one attempt, whatever
  // Retry-After says; no answer is retried only when asked to.
  for (int status : {500, 501, 505, 401, 0}) {
    Outcome other;
    Post(other);
    EXPECT_FALSE(Fail(status, {{"retry-after", "1"}})) << status << " was retried";
    EXPECT_EQ(other.calls, 1) << status;
    EXPECT_EQ(other.response ? other.response->StatusCode() : 0, status);
  }
  EXPECT_EQ(transport->all.size(), 9u);
  service.ConfigureForAuthorizationProcessor(Guid::CreateUnique(), nullptr,
                                             kelappsupport::cloudservice::kConnectivityErrorRetry);
  Post(outcome);
  EXPECT_TRUE(Fail(0));
  EXPECT_FALSE(Fail(200));
  EXPECT_EQ(outcome.calls, 2);
  EXPECT_EQ(outcome.response ? outcome.response->StatusCode() : 0, 200);
}

TEST_F(ServiceBaseTest, RetryAfterAndTheTotalBudgetBoundTheRetries) {
  service.ConfigureForRecoverableErrorProcessor({503});
  scheduler->wall = std::chrono::system_clock::from_time_t(784111777);  // Sun, 06 Nov 1994 08:49:37 GMT

  // Retry-After is a floor under the back-off (187 ms here), as seconds or as an IMF date on the
  // scheduler's wall clock; a wait beyond maxRetryAfter (30 s), however far off, ends the retries
  // at once. What cannot be read, and a date past, leave the back-off alone.
  struct Row {
    const char* retryAfter;
    std::optional<std::chrono::milliseconds> delay;
  };
  for (const Row& row : {Row{"7", 7000ms}, Row{"Sun, 06 Nov 1994 08:50:07 GMT", 30000ms}, Row{" 31 ", std::nullopt},
                         Row{"Fri, 31 Dec 9999 23:59:59 GMT", std::nullopt}, Row{"Thu, 01 Jan 1970 00:00:00 GMT", 187ms},
                         Row{"Sun, 06 Nov 1994 08:50:07 UTC", 187ms}, Row{"Sun, 32 Nov 1994 08:50:07 GMT", 187ms},
                         Row{"Sun, 06 Foo 1994 08:50:07 GMT", 187ms}, Row{"1.5", 187ms}, Row{"-5", 187ms}}) {
    Outcome outcome;
    Post(outcome);
    EXPECT_EQ(Fail(503, {{"retry-after", row.retryAfter}}), row.delay.has_value()) << row.retryAfter;
    if (row.delay) {
      EXPECT_EQ(scheduler->delays.back(), *row.delay) << row.retryAfter;
      EXPECT_FALSE(Fail(200));
    }
    EXPECT_EQ(outcome.calls, 1) << row.retryAfter;
  }

  // No retry starts later than maxTotal after the first attempt.
  RetryPolicy policy;
  policy.maxAttempts = 100;
  policy.maxTotal = 1000ms;
  service.ConfigureRetryPolicy(policy);
  Outcome budget;
  Post(budget);
  int attempts = 1;
  while (Fail(503)) ++attempts;
  EXPECT_EQ(attempts, 3);  // waits of 187 + 375 ms fit in a second; the next 750 ms does not
  EXPECT_EQ(budget.calls, 1);
}

TEST_F(ServiceBaseTest, UnauthorizedAnswersNotifyOnAnExecutorOncePerAnswer) {
  std::atomic<int> calls{0};
  std::promise<std::thread::id> twice;
  service.ConfigureForAuthorizationProcessor(Guid::CreateUnique(), [&](const ImmutableString&) {
    if (++calls == 2) twice.set_value(std::this_thread::get_id());
  }, kelappsupport::cloudservice::kConnectivityErrorReport);
  Outcome first, second;
  Post(first);
  Post(second);
  EXPECT_FALSE(Fail(401));
  EXPECT_FALSE(Fail(401));
  auto thread = twice.get_future();
  ASSERT_EQ(thread.wait_for(transport_test::kHangGuard), std::future_status::ready);
  EXPECT_NE(thread.get(), std::this_thread::get_id());
}

TEST_F(ServiceBaseTest, HeadersOfEachRequestAndWhereTheTokenGoes) {
  service.common = {{"apollographql-client-name", "ostrio"}, {"content-type", "application/json; charset=utf-8"}};
  service.SetAuthToken("Bearer t", kelnet::kHEADER_AUTHORIZATION);
  auto send = [&](const char* url, kelnet::HeaderMap headers = {}, bool authorize = true) {
    Outcome outcome;
    Post(outcome, url, nullptr, std::move(headers), authorize);
    auto request = transport->Take();
    if (request) transport->Answer(request, 200);
    return request ? *request : transport_test::FakeRequest{};
  };
  // The caller's header beats the common one of the same name; the token replaces the caller's.
  const auto request = send(kApi, {{"Content-Type", "application/x-www-form-urlencoded"}, {"authorization", "Bearer x"}});
  EXPECT_EQ(request.headers.count("content-type"), 0u);
  EXPECT_EQ(request.Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request.Header("apollographql-client-name"), "ostrio");
  EXPECT_EQ(request.headers.count("authorization"), 1u);
  EXPECT_EQ(request.Header("authorization"), "Bearer t");
  EXPECT_EQ(send(kApi, {}, false).headers.count("authorization"), 0u);  // not an authorized request
  EXPECT_LT(service.SetAuthToken("Bearer a\r\nx-evil: 1", kelnet::kHEADER_AUTHORIZATION), 0);

  // Never over plain http but to this machine (by number or by name, never by a name that only
  // looks like it); until hosts are named, to every https host; then only to those.
  auto tokenSentTo = [&](const std::vector<std::pair<const char*, bool>>& rows) {
    for (const auto& [url, sent] : rows) EXPECT_EQ(send(url).Header("authorization") == "Bearer t", sent) << url;
  };
  tokenSentTo({{"https://cdn.elsewhere.test/a", true}, {"http://127.0.0.1:8443/graphql", true},
               {"http://127.255.0.9/graphql", true}, {"http://[::1]:8443/graphql", true},
               {"http://api.ostrio.localhost:8443/graphql", true}, {"http://api.example.test/graphql", false},
               {"http://127.attacker.example/", false}, {"http://127.0.0.1.attacker.example/", false},
               {"http://localhost.attacker.example/", false}});
  ASSERT_EQ(service.ConfigureAuthorizedHosts({".Example.test:8443"}), 0);
  tokenSentTo({{"https://api.example.test/graphql", true}, {"https://example.test/", true},
               {"https://cdn.elsewhere.test/a", false}, {"https://badexample.test/", false},
               {"https://example.test.evil.test/", false}});
  EXPECT_LT(service.ConfigureAuthorizedHosts({"."}), 0);
}

// With kelnet's own timer (the fake scheduler runs timers on the test thread and would hide it):
// a request that a retry finishes still completes off the network thread; so does a POST's own
// completion.
TEST(CallbackThreadTest, CompletionsStayOffTheNetworkThread) {
  auto transport = std::make_shared<FakeTransport>();
  ServiceBase service;
  service.SetTransport(transport);
  service.ConfigureForRecoverableErrorProcessor({503});
  for (const bool retried : {true, false}) {
    transport_test::Awaited awaited;
    bool onNetworkThread = true;
    auto completion = [&](const Guid& id, const std::shared_ptr<kelnet::Response>& response) {
      onNetworkThread = kelnet::IsNetworkThread();
      awaited.Completion()(id, response);
    };
    if (retried) {
      ASSERT_EQ(service.HttpPost(Guid::CreateUnique(), completion, kApi, nullptr, {}, {}, false), 0);
      transport->refuse = true;  // the retry is refused, in the timer's task
      transport->Answer(transport->Take(), 503);
    } else {
      ASSERT_TRUE(kelnet::POST(Guid::CreateUnique(), completion, "http://127.0.0.1:1/", nullptr, {}, {}));
    }
    awaited.Get();
    EXPECT_FALSE(onNetworkThread) << retried;
  }
}

}  // namespace

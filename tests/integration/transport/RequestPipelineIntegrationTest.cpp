// POST through kelnet and ServiceBase against the emulator over HTTPS: the bytes of every attempt
// of a retried request, TLS, a throttled burst that outlives its connection, and shutdown or exit
// with requests in flight.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kelnet/Constants.h"
#include "tests/integration/transport/EmulatorFixture.h"

namespace {

using namespace std::chrono_literals;
using kelcore::utility::Guid;
using transport_test::Awaited;

constexpr const char* kQuery = R"({"query":"query Me { me { id } }"})";

using RequestPipelineIntegrationTest = transport_test::EmulatorFixture;

// Every attempt carries the same bytes: the body (multi-byte UTF-8 and JSON escapes), each of
// the caller's headers once, the token in place of the caller's own, the length, no Expect, an
// offer to take a compressed answer. A POST without a content type of its own sends none (not
// curl's form default). Nothing reaches a peer that is not verified.
TEST_F(RequestPipelineIntegrationTest, WhatCrossesTheWireForEveryAttemptOfARetriedPost) {
  kelappsupport::cloudservice::RetryPolicy fast;
  fast.initialBackoff = 5ms;
  service.ConfigureRetryPolicy(fast);
  service.ConfigureForRecoverableErrorProcessor({502, 503, 504});
  const std::string token = "Bearer eyJ.test.token";
  service.SetAuthToken(kelcore::ImmutableString(token), kelnet::kHEADER_AUTHORIZATION);
  for (const char* status : {"502", "503", "504"}) Fault(R"({"route":"graphql","status":)" + std::string(status) + "}");
  const std::string body = R"({"query":"query Me { me { id } }","variables":{"note":"ünïcødé \"q\" \\ \t"}})";
  Awaited awaited, form;
  ASSERT_EQ(service.HttpPost(Guid::CreateUnique(), awaited.Completion(), Url("/graphql"),
                             kelcore::allocator::RecycledMemory::Copy(body),
                             {{"content-type", "application/json"}, {"x-ostrio-client", "Ostrio/Tests/1.2"},
                              {"Authorization", "Bearer stale"}},
                             {}, true),
            0);
  auto response = awaited.Get();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->StatusCode(), 200);
  EXPECT_EQ(response->HttpVersion(), "2");
  ASSERT_TRUE(kelnet::POST(Guid::CreateUnique(), form.Completion(), Url("/graphql"),
                           kelcore::allocator::RecycledMemory::Copy("a=1&b=2"), {}, Trusted()));
  form.Get();
  // The peer is always verified: a request's own bundle (here one that trusts the world, not the
  // emulator) wins over its service's, and no request may turn verification off.
  kelnet::Configuration systemOnly, insecure;
  systemOnly.caBundlePath = "/etc/ssl/certs/ca-certificates.crt";
  insecure.verifyPeer = false;
  Awaited untrusted;
  ASSERT_EQ(service.HttpPost(Guid::CreateUnique(), untrusted.Completion(), Url("/graphql"), nullptr, {}, systemOnly, true),
            0);
  EXPECT_FALSE(untrusted.Get());
  EXPECT_FALSE(kelnet::POST(Guid::CreateUnique(), [](auto&, auto&) {}, Url("/graphql"), nullptr, {}, insecure));

  const auto requests = Requests();
  ASSERT_EQ(requests.size(), 5u);
  for (std::size_t i = 0; i < requests.size(); ++i) {
    const auto entry = requests[i].AsDictionary();
    std::multimap<std::string, std::string> sent;
    for (const auto& header : entry.GetArray("headers")) {
      const auto pair = header.AsArray();
      ASSERT_EQ(pair.size(), 2u);
      sent.emplace(pair[0].AsString(), pair[1].AsString());
    }
    auto only = [&](const char* name) { return sent.count(name) == 1 ? sent.find(name)->second : "<not once>"; };
    EXPECT_EQ(entry.GetString("method") + " " + entry.GetString("path"), "POST /graphql");
    if (i == 4) {
      EXPECT_EQ(entry.GetString("body"), "a=1&b=2");
      EXPECT_EQ(sent.count("content-type"), 0u);
      continue;
    }
    EXPECT_EQ(entry.GetString("body"), body) << i;
    EXPECT_EQ(only("content-type"), "application/json") << i;
    EXPECT_EQ(only("x-ostrio-client"), "Ostrio/Tests/1.2") << i;
    EXPECT_EQ(only("authorization"), token) << i;
    EXPECT_EQ(only("content-length"), std::to_string(body.size())) << i;
    EXPECT_EQ(sent.count("accept-encoding"), 1u) << i;
    EXPECT_EQ(sent.count("expect"), 0u) << i;
  }
}

// Node's HTTP/2 server closes a busy connection after about a thousand streams from this curl;
// the streams it never took up must come back on a new connection, not as failures. The test
// thread fills the throttled queue while the completion thread drains it.
TEST_F(RequestPipelineIntegrationTest, ThrottledBurstOutlivesTheConnectionTheServerCloses) {
  constexpr int kRequests = 2500;
  ASSERT_EQ(service.ConfigureRequestThrottling(16, 16), 0);
  std::atomic<int> ok{0}, finished{0};
  std::promise<void> done;
  const auto body = kelcore::allocator::RecycledMemory::Copy(kQuery);
  for (int i = 0; i < kRequests; ++i) {
    EXPECT_EQ(service.HttpPost(
                  Guid::CreateUnique(),
                  [&](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
                    ok += response && response->StatusCode() == 200;
                    if (++finished == kRequests) done.set_value();
                  },
                  Url("/graphql"), body, {{"content-type", "application/json"}}, {}, true),
              0);
  }
  ASSERT_EQ(done.get_future().wait_for(transport_test::kHangGuard), std::future_status::ready);
  EXPECT_EQ(ok.load(), kRequests);
}

// Shutdown is for good, so this runs in a child process of its own. Two downloads (one of the
// service, one of kelnet) whose consumer stopped, so both transfers filled their queues and
// paused; POSTs on the wire and POSTs waiting in the throttled queue: each completes once,
// without an answer, and nothing starts afterwards.
TEST_F(RequestPipelineIntegrationTest, ShutdownCompletesEverythingInFlightOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // Locals stay alive through std::exit, which runs the shutdown at exit and no destructor of theirs.
        std::atomic<int> completions{0};
        std::atomic<int> answered{0};
        auto count = [&](const Guid&, const std::shared_ptr<kelnet::Response>& response) {
          ++completions;
          answered += response != nullptr;
        };
        std::atomic<bool> blocked{false};
        std::promise<void> stopped;
        std::promise<void> release;
        std::shared_future<void> released = release.get_future().share();
        auto stop = [&](auto&, auto, auto, auto, auto&, auto&) {
          if (blocked.exchange(true)) return;
          stopped.set_value();
          released.wait();
        };
        kelnet::Configuration ownConnection = Trusted();
        ownConnection.allowHttp2 = false;
        service.ConfigureRequestThrottling(2, 2);
        service.HttpStreamingGet(Guid::CreateUnique(), stop, count, Url("/media/synthetic/100000000"), {}, {}, true);
        kelnet::StreamingGET(Guid::CreateUnique(), stop, count, Url("/media/synthetic/100000000"), {}, ownConnection);
        stopped.get_future().wait_for(60s);
        // Round trips while the consumer is stopped: long enough, in practice, for both transfers
        // to fill their queues and pause. Nothing asserted depends on it.
        for (int i = 0; i < 20; ++i) {
          Awaited post;
          if (kelnet::POST(Guid::CreateUnique(), post.Completion(), Url("/graphql"), nullptr, {}, Trusted())) post.Get();
        }
        Fault(R"({"route":"graphql","delayMs":60000,"count":100})");
        for (int i = 0; i < 4; ++i) service.HttpPost(Guid::CreateUnique(), count, Url("/graphql"), nullptr, {}, {}, true);
        std::thread stopper([] { kelnet::Shutdown(); });
        while (!kelnet::IsShutDown()) std::this_thread::yield();
        release.set_value();
        stopper.join();
        kelnet::Shutdown();
        const bool refused = !kelnet::POST(Guid::CreateUnique(), count, Url("/graphql"), nullptr, {}, {}) &&
                             service.HttpPost(Guid::CreateUnique(), count, Url("/graphql"), nullptr, {}, {}, true) < 0;
        std::exit(completions == 6 && answered == 0 && refused ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(RequestPipelineIntegrationTest, ProcessExitWithRequestsInFlightDoesNotHang) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Fault(R"({"route":"graphql","delayMs":60000,"count":10})");
        for (int i = 0; i < 10; ++i) {
          service.HttpPost(Guid::CreateUnique(), [](auto&, auto&) {}, Url("/graphql"), nullptr, {}, {}, true);
        }
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

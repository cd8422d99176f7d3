// Messaging: routing, unsubscribing during delivery, listener lifetime across threads, and
// asynchronous delivery on the main thread only.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kelcore/Executor.h"
#include "kelcore/Messaging.h"
#include "LogCapture.h"

using namespace kelcore;
using namespace kelcore::messaging;
using namespace std::chrono_literals;

constexpr auto kHangGuard = 60s;

struct PingTag {};
using Ping = MessageBase<PingTag, int>;
struct PongTag {};
using Pong = MessageBase<PongTag, std::shared_ptr<int>>;

class Messaging : public ::testing::Test {
 protected:
  void SetUp() override {
    async::InstallMainThreadDispatcher(loop_);
    RegisterStation(station_);
  }
  void TearDown() override {
    DisposeStation(station_);
    async::UninstallMainThreadDispatcher();
  }

  std::shared_ptr<async::MainThreadRunLoop> loop_ = std::make_shared<async::MainThreadRunLoop>();
  ImmutableString station_ = UniqueStationID();
};

TEST_F(Messaging, RoutesByStationAndTypeAndListenersMayUnsubscribeWhileCalled) {
  const auto otherStation = UniqueStationID();  // registered: a real station that must hear nothing
  RegisterStation(otherStation);
  std::vector<std::string> heard;
  const auto hear = [&](std::string name) { return [&heard, name](const auto&) { heard.push_back(name); }; };
  Listener<Ping> ping(station_, [&](const Ping& m) { heard.push_back(std::to_string(m.Get<0>())); });
  Listener<Pong> pong(station_, hear("pong"));
  Listener<Ping> other(otherStation, hear("other station"));
  std::optional<Listener<Ping>> self, victim;
  self.emplace(station_, [&](const Ping&) {
    heard.push_back("self");
    self.reset();
  });
  Listener<Ping> killer(station_, [&](const Ping&) {
    heard.push_back("killer");
    victim.reset();  // subscribed after us: silenced before its turn in this same delivery
  });
  victim.emplace(station_, hear("victim"));
  BroadcastMessageOnMainThread(station_, Ping(5));
  BroadcastMessageOnMainThread(station_, Ping(6));
  EXPECT_EQ(heard, (std::vector<std::string>{"5", "self", "killer", "6", "killer"}));
  EXPECT_FALSE(Listener<Ping>(UniqueStationID(), hear("nowhere")).IsSubscribed());
  DisposeStation(otherStation);
}

TEST_F(Messaging, NoListenerIsCalledAfterItsDestructorReturned) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> broadcasters;
  for (int t = 0; t < 4; ++t) {
    broadcasters.emplace_back([&] {
      while (!stop.load()) BroadcastMessageOnMainThread(station_, Ping(1));
    });
  }
  std::atomic<int> lateCalls{0};
  int unobserved = 0;
  for (int round = 0; round < 300; ++round) {
    auto destroyed = std::make_shared<std::atomic<bool>>(false);
    auto calls = std::make_shared<std::atomic<int>>(0);
    {
      Listener<Ping> listener(station_, [destroyed, calls, &lateCalls](const Ping&) {
        if (destroyed->load()) ++lateCalls;
        ++*calls;
      });
      // Destroy it while broadcasts are reaching it, not before the first one arrives.
      const auto giveUp = std::chrono::steady_clock::now() + kHangGuard;
      while (calls->load() == 0 && std::chrono::steady_clock::now() < giveUp) std::this_thread::yield();
      unobserved += calls->load() == 0;
    }
    destroyed->store(true);
  }
  stop = true;
  for (auto& thread : broadcasters) thread.join();
  EXPECT_EQ(unobserved, 0);
  EXPECT_EQ(lateCalls.load(), 0);
}

TEST_F(Messaging, AsyncBroadcastIsDeliveredOnTheMainThreadOnly) {
  constexpr int kMessages = 200;
  std::atomic<int> received{0}, wrongThread{0};
  Listener<Ping> listener(station_, [&](const Ping&) {
    wrongThread += !async::IsMainThread();
    ++received;
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      wrongThread += async::IsMainThread();  // the installing thread is the only main thread
      for (int k = 0; k < kMessages / 4; ++k) AsyncBroadcastMessagePtr(station_, std::make_unique<Ping>(k));
    });
  }
  for (auto& thread : posters) thread.join();
  EXPECT_EQ(received.load(), 0) << "delivered before the main loop ran";
  EXPECT_TRUE(loop_->RunUntil([&] { return received.load() == kMessages; }, kHangGuard));
  EXPECT_EQ(wrongThread.load(), 0);
}

TEST_F(Messaging, DisposedStationsAndMissingDispatchersDeliverNothing) {
  int calls = 0;
  Listener<Ping> listener(station_, [&](const Ping&) { ++calls; });
  AsyncBroadcastMessagePtr(station_, std::make_unique<Ping>(1));  // queued before disposal
  DisposeStation(station_);
  loop_->RunPending();
  BroadcastMessageOnMainThread(station_, Ping(2));
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(IsStationRegistered(station_));

  // Without a main thread the message is dropped, and its payload with it.
  RegisterStation(station_);
  Listener<Pong> holder(station_, [&](const Pong&) { ++calls; });
  async::UninstallMainThreadDispatcher();
  LogCapture log;
  auto payload = std::make_shared<int>(1);
  std::weak_ptr<int> watch = payload;
  AsyncBroadcastMessagePtr(station_, std::make_unique<Pong>(std::move(payload)));
  AsyncBroadcastMessagePtr(station_, std::make_unique<Pong>(nullptr));
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(loop_->RunPending(), 0u);
  EXPECT_EQ(calls, 0);
  // Said once, naming the missing call, not once per dropped message.
  const auto records = log.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_NE(records[0].message.find("InstallMainThreadDispatcher"), std::string::npos);
}

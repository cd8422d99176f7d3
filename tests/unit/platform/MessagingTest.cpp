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
#include "kelcore/Logging.h"
#include "kelcore/Messaging.h"

namespace {

using namespace kelcore;
using namespace kelcore::messaging;
using namespace std::chrono_literals;

constexpr auto kGenerous = 60s;

struct PingTag {};
using Ping = MessageBase<PingTag, int>;
struct PongTag {};
using Pong = MessageBase<PongTag, std::string>;

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
  const auto otherStation = UniqueStationID();
  ASSERT_FALSE(otherStation == station_);
  RegisterStation(otherStation);

  int pings = 0, pongs = 0, elsewhere = 0;
  Listener<Ping> ping(station_, [&](const Ping& m) { pings += m.Get<0>(); });
  Listener<Pong> pong(station_, [&](const Pong&) { ++pongs; });
  Listener<Ping> other(otherStation, [&](const Ping&) { ++elsewhere; });

  int selfCalls = 0, killerCalls = 0, victimCalls = 0;
  std::optional<Listener<Ping>> self;
  self.emplace(station_, [&](const Ping&) {
    ++selfCalls;
    self.reset();
  });
  std::optional<Listener<Ping>> victim;
  Listener<Ping> killer(station_, [&](const Ping&) {
    ++killerCalls;
    victim.reset();  // subscribed after us: silenced before its turn in this same delivery
  });
  victim.emplace(station_, [&](const Ping&) { ++victimCalls; });

  BroadcastMessageOnMainThread(station_, Ping(5));
  BroadcastMessageOnMainThread(station_, Ping(5));
  EXPECT_EQ(pings, 10);
  EXPECT_EQ(pongs, 0);
  EXPECT_EQ(elsewhere, 0);
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(killerCalls, 2);
  EXPECT_EQ(victimCalls, 0);

  Listener<Ping> nowhere(UniqueStationID(), [](const Ping&) {});
  EXPECT_FALSE(nowhere.IsSubscribed());
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
      const auto giveUp = std::chrono::steady_clock::now() + kGenerous;
      while (calls->load() == 0 && std::chrono::steady_clock::now() < giveUp) std::this_thread::yield();
      if (calls->load() == 0) ++unobserved;
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
  std::atomic<int> received{0};
  std::atomic<int> offMain{0};
  Listener<Ping> listener(station_, [&](const Ping&) {
    if (!async::IsMainThread()) ++offMain;
    ++received;
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int k = 0; k < kMessages / 4; ++k) AsyncBroadcastMessagePtr(station_, std::make_unique<Ping>(k));
    });
  }
  for (auto& thread : posters) thread.join();
  EXPECT_EQ(received.load(), 0) << "delivered before the main loop ran";
  EXPECT_TRUE(loop_->RunUntil([&] { return received.load() == kMessages; }, kGenerous));
  EXPECT_EQ(offMain.load(), 0);
}

TEST_F(Messaging, DisposedStationsAndMissingDispatchersDeliverNothing) {
  int calls = 0;
  Listener<Pong> listener(station_, [&](const Pong&) { ++calls; });
  AsyncBroadcastMessagePtr(station_, std::make_unique<Pong>("queued before disposal"));
  DisposeStation(station_);
  loop_->RunPending();
  BroadcastMessageOnMainThread(station_, Pong("after"));
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(IsStationRegistered(station_));

  // Without a main thread the message is dropped, and its payload with it.
  RegisterStation(station_);
  Listener<MessageBase<PongTag, std::shared_ptr<int>>> holder(station_, [&](const auto&) { ++calls; });
  async::UninstallMainThreadDispatcher();
  std::vector<std::string> warnings;
  logging::SetSink([&](const logging::Record& r) { warnings.push_back(r.message); }, logging::Level::Warning);
  auto payload = std::make_shared<int>(1);
  std::weak_ptr<int> watch = payload;
  AsyncBroadcastMessagePtr(station_, std::make_unique<MessageBase<PongTag, std::shared_ptr<int>>>(std::move(payload)));
  AsyncBroadcastMessagePtr(station_, std::make_unique<Pong>("again"));
  logging::SetSink({});
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(loop_->RunPending(), 0u);
  EXPECT_EQ(calls, 0);
  // Said once, naming the missing call, not once per dropped message.
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("InstallMainThreadDispatcher"), std::string::npos);
}

}  // namespace

// Executors: the pre-termination executor's drain, the main-thread run loop. The default pool and
// dispatching to the main thread from many threads are exercised by the future and messaging tests.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "kelcore/Executor.h"
#include "kelcore/Future.h"

using namespace kelcore;
using namespace kelcore::async;
using namespace std::chrono_literals;

constexpr auto kHangGuard = 60s;

// Whether the loop's destruction, or a post after shutdown, released a task it never ran.
template <class Post>
static bool ReleasesUnrunTask(Post post) {
  auto held = std::make_shared<int>(1);
  std::weak_ptr<int> watch = held;
  post([held = std::move(held)] {});
  return watch.expired();
}

// One test, because shutting the executor down is for good.
TEST(PreTerminationExecutor, RunsSeriallyInOrderAndDrainsOnShutdown) {
  auto executor = GetPreTerminationExecutor();
  ASSERT_TRUE(executor);
  std::vector<int> order;  // touched only by the single worker, then read after the join
  std::set<std::thread::id> threads;
  // Holds the worker until shutdown has begun, so everything below is still queued then.
  executor->Post([] {
    const auto giveUp = std::chrono::steady_clock::now() + kHangGuard;
    while (GetPreTerminationExecutor() && std::chrono::steady_clock::now() < giveUp) std::this_thread::yield();
  });
  for (int i = 0; i < 100; ++i) {
    executor->Post([&, i] {
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
      // Posted while draining: still part of the drain.
      if (i == 99) executor->Post([&] { order.push_back(100); });
    });
  }
  ShutdownPreTerminationExecutor();  // returns only after the drain and the join

  ASSERT_EQ(order.size(), 101u);
  for (int i = 0; i <= 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(threads.size(), 1u);
  EXPECT_EQ(GetPreTerminationExecutor(), nullptr);
  EXPECT_TRUE(ReleasesUnrunTask([&](Task task) { executor->Post(std::move(task)); }));
}

TEST(MainThreadRunLoop, StopTimeoutAndPendingWork) {
  MainThreadRunLoop loop;
  EXPECT_FALSE(loop.RunUntil([] { return false; }, 1ms));  // nothing will come: the bound is honoured
  std::thread stopper([&] { loop.Stop(); });
  EXPECT_TRUE(loop.RunUntil(nullptr));  // unbounded: only Stop() ends it
  stopper.join();

  // RunPending runs what was queued on entry, not what those tasks queue.
  int ran = 0;
  std::function<void()> repost = [&] {
    ++ran;
    loop.Post(repost);
  };
  loop.Post(repost);
  loop.Post(repost);
  EXPECT_EQ(loop.RunPending(), 2u);
  EXPECT_EQ(ran, 2);

  EXPECT_TRUE(ReleasesUnrunTask([](Task task) { MainThreadRunLoop().Post(std::move(task)); }));
}

// Executors: the default pool, the pre-termination executor's drain, the main-thread run loop.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "kelcore/Executor.h"
#include "kelcore/Future.h"

namespace {

using namespace kelcore;
using namespace kelcore::async;
using namespace std::chrono_literals;

constexpr auto kGenerous = 60s;

TEST(DefaultExecutor, RunsEveryTaskFromManyThreadsOffTheCallersThread) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 500;
  std::atomic<int> ran{0};
  std::atomic<int> onCaller{0};
  std::vector<Future<void>> done;
  std::mutex doneMutex;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      const auto me = std::this_thread::get_id();
      for (int k = 0; k < kPerThread; ++k) {
        Promise<void> promise;
        {
          std::lock_guard lock(doneMutex);
          done.push_back(promise.GetFuture());
        }
        GetDefaultExecutor()->Post([&, me, promise] {
          if (std::this_thread::get_id() == me) ++onCaller;
          ++ran;
          promise.SetValue();
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& future : done) ASSERT_TRUE(future.WaitFor(kGenerous));
  EXPECT_EQ(ran.load(), kThreads * kPerThread);
  EXPECT_EQ(onCaller.load(), 0);
}

// One test, because shutting the executor down is for good.
TEST(PreTerminationExecutor, RunsSeriallyInOrderAndDrainsOnShutdown) {
  auto executor = GetPreTerminationExecutor();
  ASSERT_TRUE(executor);
  std::vector<int> order;  // touched only by the single worker, then read after the join
  std::set<std::thread::id> threads;
  // Holds the worker until shutdown has begun, so everything below is still queued then.
  executor->Post([] {
    const auto giveUp = std::chrono::steady_clock::now() + kGenerous;
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

  // Posting to a reference kept past shutdown drops the task and releases what it holds.
  auto held = std::make_shared<int>(5);
  std::weak_ptr<int> watch = held;
  executor->Post([held = std::move(held)] {});
  EXPECT_TRUE(watch.expired());
}

TEST(MainThreadRunLoop, RunsWorkFromOtherThreadsOnTheInstallingThread) {
  auto loop = std::make_shared<MainThreadRunLoop>();
  InstallMainThreadDispatcher(loop);
  EXPECT_TRUE(IsMainThread());
  std::atomic<bool> workerThinksMain{true};
  std::atomic<int> ranOnMain{0};
  std::atomic<int> ranElsewhere{0};
  constexpr int kTasks = 200;

  std::vector<std::thread> workers;
  for (int t = 0; t < 4; ++t) {
    workers.emplace_back([&] {
      workerThinksMain = IsMainThread();
      for (int k = 0; k < kTasks / 4; ++k) {
        GetMainThreadDispatcher()->Post([&] { (IsMainThread() ? ranOnMain : ranElsewhere)++; });
      }
    });
  }
  EXPECT_TRUE(loop->RunUntil([&] { return ranOnMain + ranElsewhere == kTasks; }, kGenerous));
  for (auto& worker : workers) worker.join();
  EXPECT_FALSE(workerThinksMain.load());
  EXPECT_EQ(ranOnMain.load(), kTasks);
  EXPECT_EQ(ranElsewhere.load(), 0);

  // A future continued on the dispatcher completes only while the loop runs.
  Promise<int> promise;
  auto onMain = promise.GetFuture().ThenOnSuccess([](int v) { return IsMainThread() ? v : -1; }, loop);
  std::thread completer([&] { promise.SetValue(3); });
  EXPECT_TRUE(loop->RunUntil([&] { return onMain.IsReady(); }, kGenerous));
  completer.join();
  EXPECT_EQ(onMain.Get(), 3);

  UninstallMainThreadDispatcher();
  EXPECT_FALSE(IsMainThread());
  EXPECT_EQ(GetMainThreadDispatcher(), nullptr);
}

TEST(MainThreadRunLoop, StopTimeoutAndPendingWork) {
  MainThreadRunLoop loop;
  // Nothing queued and nothing to wait for: the bound is honoured.
  EXPECT_FALSE(loop.RunUntil([] { return false; }, 1ms));

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

  // Destroying the loop releases the captures of tasks it never ran.
  auto held = std::make_shared<int>(1);
  std::weak_ptr<int> watch = held;
  {
    MainThreadRunLoop doomed;
    doomed.Post([held = std::move(held)] {});
  }
  EXPECT_TRUE(watch.expired());
}

}  // namespace

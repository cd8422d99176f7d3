// Futures: completion and continuation races, ordering, failure propagation, unwrapping,
// broken promises, and where continuations run; the exceptions that carry failures.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelcore/Executor.h"
#include "kelcore/Future.h"
#include "kelcore/KelException.h"

using namespace kelcore;
using namespace kelcore::async;
using namespace std::chrono_literals;

// Waits (bounded, so a broken future fails instead of hanging) and gives the result code.
template <class T>
static Result Outcome(const Future<T>& future) {
  EXPECT_TRUE(future.WaitFor(60s)) << "future never completed";
  return future.IsReady() ? future.GetResult() : kErrorFailed;
}

TEST(Future, ManyThreadsCompleteWhileOthersAttachEachContinuationRunsOnce) {
  constexpr int kThreads = 16, kPerThread = 1000, kTotal = kThreads * kPerThread;
  std::vector<Promise<int>> promises(kTotal);
  std::vector<std::atomic<int>> runs(kTotal);
  std::vector<std::vector<Future<void>>> done(kThreads + 1);
  const auto count = [&](int index) {
    return [&, index](int value) { runs[index] += value == index ? 1 : 1000; };
  };
  const auto attachToAll = [&] {
    for (int i = 0; i < kTotal; ++i) done[kThreads].push_back(promises[i].GetFuture().ThenOnSuccess(count(i)));
  };
  attachToAll();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Complete our own slice while attaching to the neighbour's, which it is completing now.
      const int neighbour = ((t + 1) % kThreads) * kPerThread;
      for (int k = 0; k < kPerThread; ++k) {
        promises[t * kPerThread + k].SetValue(t * kPerThread + k);
        done[t].push_back(promises[neighbour + k].GetFuture().ThenOnSuccess(count(neighbour + k), GetInlineExecutor()));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  attachToAll();
  for (const auto& group : done) {
    for (const auto& future : group) ASSERT_EQ(Outcome(future), kResultOK);
  }
  for (int i = 0; i < kTotal; ++i) ASSERT_EQ(runs[i].load(), 3) << "promise " << i;
}

TEST(Future, CompletionIsOneShotUnderContention) {
  for (int round = 0; round < 50; ++round) {
    Promise<int> promise;
    std::atomic<int> winners{0}, continuations{0};
    auto after = promise.GetFuture().Then([&](Future<int>) { ++continuations; }, GetInlineExecutor());
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] { winners += t % 2 ? promise.SetValue(t) : promise.SetError(kErrorFailed); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Outcome(after), kResultOK);
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(continuations.load(), 1);
  }
}

TEST(Future, ContinuationsStartInAttachOrderEvenWhenAttachedDuringCompletion) {
  Promise<int> promise;
  auto future = promise.GetFuture();
  std::vector<int> order;
  future.Then([&](Future<int>) {
    order.push_back(1);
    // Attached while the completing thread is still running continuations: must not jump the
    // queue ahead of the second one.
    future.Then([&](Future<int>) { order.push_back(3); }, GetInlineExecutor());
  }, GetInlineExecutor());
  future.Then([&](Future<int>) { order.push_back(2); }, GetInlineExecutor());
  promise.SetValue(7);
  future.Then([&](Future<int>) { order.push_back(4); }, GetInlineExecutor());  // complete: runs at once
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(Future, FailuresPassSuccessOnlyContinuationsAndBrokenPromisesFail) {
  Promise<int> promise;
  std::atomic<int> ran{0};
  auto tail = promise.GetFuture().ThenOnSuccess([&](int v) { return ++ran + v; }).ThenOnSuccess([&](int) { ++ran; });
  promise.SetError(kErrorNotSignedIn, "nobody home");
  EXPECT_EQ(Outcome(tail), kErrorNotSignedIn);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(ExtractMessageFromException(tail.GetException()), "nobody home");
  // A throwing continuation fails its future with the thrown code.
  EXPECT_EQ(Outcome(MakeReadyFuture(1).ThenOnSuccess([](int v) {
              KEL_THROW_IF(v == 1, kErrorPreconditionFailed, "");
              return v;
            })),
            kErrorPreconditionFailed);

  Future<int> future;
  const auto observed = [&] {
    Promise<int> dropped;
    future = dropped.GetFuture();
    return future.Then([](Future<int> f) { return f.Get(); });  // attached before the promise goes
  }();
  EXPECT_EQ(Outcome(observed), kErrorFailed);
  EXPECT_EQ(ExtractMessageFromException(future.GetException()), "Broken promise");
  // The continuation's task is dropped by its executor (one that was shut down): whoever waits
  // on its result is told.
  struct DroppingExecutor final : IExecutor {
    void Post(Task) override {}
  };
  EXPECT_EQ(Outcome(MakeReadyFuture(1).ThenOnSuccess([](int v) { return v; }, std::make_shared<DroppingExecutor>())),
            kErrorFailed);
  EXPECT_THROW(Future<int>().Wait(), kel_exception);
}

TEST(Future, FutureReturningContinuationsAreFollowed) {
  Promise<int> inner;
  auto outer = MakeReadyFuture(20).ThenOnSuccess([&](int v) {
    return inner.GetFuture().ThenOnSuccess([v](int w) { return v + w; });
  });
  EXPECT_FALSE(outer.WaitFor(0ms));
  inner.SetValue(22);
  EXPECT_EQ(Outcome(outer), kResultOK);
  EXPECT_EQ(outer.Get(), 42);
  EXPECT_EQ(Outcome(MakeReadyFuture().ThenOnSuccess([] { return MakeFailedFuture<int>(kErrorRefreshRejected); })),
            kErrorRefreshRejected);
  EXPECT_EQ(Outcome(MakeReadyFuture().ThenOnSuccess([] { return Future<int>(); })), kErrorFailed);
  // A continuation returning a reference to its argument yields a copy, not a dangling reference.
  auto echoed = MakeReadyFuture(std::string(64, 'e')).ThenOnSuccess(
      [](const std::string& s) -> const std::string& { return s; });
  EXPECT_EQ(Outcome(echoed), kResultOK);
  EXPECT_EQ(echoed.Get(), std::string(64, 'e'));
}

TEST(Future, ContinuationsRunOnTheNamedExecutor) {
  // An executor with one thread of its own, so the test can tell where a continuation ran.
  auto named = std::make_shared<MainThreadRunLoop>();
  std::thread worker([named] { named->RunUntil(nullptr); });
  std::thread::id first, second, onDefault;
  const auto caller = std::this_thread::get_id();
  Promise<int> promise;
  auto chain = promise.GetFuture()
                   .ThenOnSuccess([&](int v) { first = std::this_thread::get_id(); return v; }, named)
                   // No executor named: the chain keeps the one named before.
                   .ThenOnSuccess([&](int v) { second = std::this_thread::get_id(); return v; });
  promise.SetValue(1);
  EXPECT_EQ(Outcome(chain), kResultOK);
  const auto workerId = worker.get_id();
  named->Stop();
  worker.join();
  EXPECT_EQ(first, workerId);
  EXPECT_EQ(second, workerId);

  // The default executor never runs a continuation on the caller's stack, even when the
  // future is already complete.
  EXPECT_EQ(Outcome(MakeReadyFuture(1).ThenOnSuccess([&](int) { onDefault = std::this_thread::get_id(); })), kResultOK);
  EXPECT_NE(onDefault, caller);
  bool ranInline = false;
  MakeReadyFuture().ThenOnSuccess([&] { ranInline = std::this_thread::get_id() == caller; }, GetInlineExecutor());
  EXPECT_TRUE(ranInline);
}

TEST(KelException, CarriesCodePlaceAndReadableText) {
  try {
    KEL_THROW_IF(1 + 1 == 2, kErrorInvalidArgument, "Invalid URL");
    FAIL();
  } catch (const kel_exception& e) {
    EXPECT_EQ(e.GetResult(), kErrorInvalidArgument);
    EXPECT_STREQ(e.what(), "Invalid URL");
    EXPECT_EQ(e.SourcePath(), "tests/unit/platform/FutureTest");
    EXPECT_EQ(e.Expression(), "1 + 1 == 2");
    EXPECT_NE(e.Function().find("TestBody"), std::string::npos);
  }
  EXPECT_STREQ(kel_exception(kErrorOperationFailed).what(), "result 0xF865001E");
  EXPECT_EQ(SourcePathWithoutExtension("queries/src/OstrioAccountList.cpp"), "queries/src/OstrioAccountList");
  EXPECT_EQ(SourcePathWithoutExtension("a.d/Makefile"), "a.d/Makefile");

  EXPECT_EQ(ExtractResultFromException(nullptr), kResultOK);
  EXPECT_EQ(ExtractResultFromException(std::make_exception_ptr(std::runtime_error("x"))), kErrorFailed);
  EXPECT_EQ(ExtractResultFromException(std::make_exception_ptr(missing_key_exception("data", "object"))),
            kErrorInvalidArgument);
  const auto nullPointer = std::make_exception_ptr(null_pointer_exception("ns::IThing"));
  EXPECT_EQ(ExtractResultFromException(nullPointer), kErrorPreconditionFailed);
  EXPECT_NE(ExtractMessageFromException(nullPointer).find("ns::IThing"), std::string::npos);
}

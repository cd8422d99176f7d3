// Futures: completion and continuation races, ordering, failure propagation, unwrapping,
// broken promises, and where continuations run.

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

namespace {

using namespace kelcore;
using namespace kelcore::async;
using namespace std::chrono_literals;

constexpr auto kGenerous = 60s;

// An executor with one thread of its own, so tests can tell where a continuation ran.
struct ThreadExecutor {
  std::shared_ptr<MainThreadRunLoop> loop = std::make_shared<MainThreadRunLoop>();
  std::thread worker{[loop = loop] { loop->RunUntil(nullptr); }};
  ~ThreadExecutor() {
    loop->Stop();
    worker.join();
  }
};

// Drops every task, as a shut-down executor does.
class DroppingExecutor final : public IExecutor {
 public:
  void Post(Task) override {}
};

template <class T>
void ExpectCompletes(const Future<T>& future) {
  ASSERT_TRUE(future.WaitFor(kGenerous)) << "future never completed";
}

TEST(Future, ManyThreadsCompleteWhileOthersAttachEachContinuationRunsOnce) {
  constexpr int kThreads = 16;
  constexpr int kPerThread = 1000;
  constexpr int kTotal = kThreads * kPerThread;
  std::vector<Promise<int>> promises(kTotal);
  std::vector<std::atomic<int>> runs(kTotal);
  std::atomic<int> wrongValues{0};
  std::vector<std::vector<Future<void>>> done(kThreads + 1);

  const auto count = [&](int index) {
    return [&, index](int value) {
      if (value != index) ++wrongValues;
      ++runs[index];
    };
  };
  for (int i = 0; i < kTotal; ++i) done[kThreads].push_back(promises[i].GetFuture().ThenOnSuccess(count(i)));

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
  for (int i = 0; i < kTotal; ++i) done[kThreads].push_back(promises[i].GetFuture().ThenOnSuccess(count(i)));

  for (const auto& group : done) {
    for (const auto& future : group) {
      ExpectCompletes(future);
      EXPECT_EQ(future.GetResult(), kResultOK);
    }
  }
  EXPECT_EQ(wrongValues.load(), 0);
  for (int i = 0; i < kTotal; ++i) ASSERT_EQ(runs[i].load(), 3) << "promise " << i;
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
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

  // Once completion has finished, a new continuation runs at once on the inline executor.
  future.Then([&](Future<int>) { order.push_back(4); }, GetInlineExecutor());
  EXPECT_EQ(order.back(), 4);
}

TEST(Future, FailurePassesThroughSuccessOnlyContinuationsWithoutRunningThem) {
  Promise<int> promise;
  std::atomic<int> ran{0};
  auto tail = promise.GetFuture()
                  .ThenOnSuccess([&](int v) { ++ran; return v + 1; })
                  .ThenOnSuccess([&](int) { ++ran; return std::string("x"); })
                  .ThenOnSuccess([&](const std::string&) { ++ran; });
  std::atomic<int> finals{0};
  auto last = tail.Then([&](Future<void> f) {
    ++finals;
    return f.GetResult();
  });
  promise.SetError(kErrorNotSignedIn, "nobody home");
  ExpectCompletes(last);
  EXPECT_EQ(last.Get(), kErrorNotSignedIn);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(finals.load(), 1);
  EXPECT_EQ(ExtractMessageFromException(tail.GetException()), "nobody home");

  // A throwing continuation fails its future with the thrown code.
  auto thrown = MakeReadyFuture(1).ThenOnSuccess([](int) -> int {
    KEL_THROW_IF(true, kErrorPreconditionFailed, "");
    return 0;
  });
  ExpectCompletes(thrown);
  EXPECT_EQ(thrown.GetResult(), kErrorPreconditionFailed);
}

TEST(Future, FutureReturningContinuationsAreFollowed) {
  ThreadExecutor other;
  Promise<int> inner;
  auto outer = MakeReadyFuture(20).ThenOnSuccess([&](int v) {
    return inner.GetFuture().ThenOnSuccess([v](int w) { return v + w; });
  });
  EXPECT_FALSE(outer.WaitFor(0ms));
  other.loop->Post([&] { inner.SetValue(22); });
  ExpectCompletes(outer);
  EXPECT_EQ(outer.Get(), 42);

  auto failed = MakeReadyFuture().ThenOnSuccess([] { return MakeFailedFuture<int>(kErrorRefreshRejected); });
  ExpectCompletes(failed);
  EXPECT_EQ(failed.GetResult(), kErrorRefreshRejected);

  auto empty = MakeReadyFuture().ThenOnSuccess([] { return Future<int>(); });
  ExpectCompletes(empty);
  EXPECT_EQ(empty.GetResult(), kErrorFailed);

  // A continuation returning a reference to its argument yields a copy, not a dangling reference.
  auto echoed = MakeReadyFuture(std::string(64, 'e')).ThenOnSuccess(
      [](const std::string& s) -> const std::string& { return s; });
  ExpectCompletes(echoed);
  EXPECT_EQ(echoed.Get(), std::string(64, 'e'));
}

TEST(Future, DroppedPromisesAndDroppedContinuationsBreakInsteadOfHanging) {
  Future<int> future;
  std::atomic<int> seen{0};
  Future<Result> observed;
  {
    Promise<int> promise;
    future = promise.GetFuture();
    observed = future.Then([&](Future<int> f) {
      ++seen;
      return f.GetResult();
    });
  }
  ExpectCompletes(observed);
  EXPECT_EQ(observed.Get(), kErrorFailed);
  EXPECT_EQ(ExtractMessageFromException(future.GetException()), "Broken promise");
  EXPECT_EQ(seen.load(), 1);

  // The continuation's task is dropped by its executor: whoever waits on its result is told.
  auto dropped = MakeReadyFuture(1).ThenOnSuccess([](int v) { return v; }, std::make_shared<DroppingExecutor>());
  ExpectCompletes(dropped);
  EXPECT_EQ(dropped.GetResult(), kErrorFailed);

  EXPECT_THROW(Future<int>().Wait(), kel_exception);
}

TEST(Future, CompletionIsOneShotUnderContention) {
  for (int round = 0; round < 50; ++round) {
    Promise<int> promise;
    std::atomic<int> winners{0};
    std::atomic<int> continuations{0};
    auto after = promise.GetFuture().Then([&](Future<int>) { ++continuations; }, GetInlineExecutor());
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        const bool won = t % 2 ? promise.SetValue(t) : promise.SetError(kErrorFailed);
        if (won) ++winners;
      });
    }
    for (auto& thread : threads) thread.join();
    ExpectCompletes(after);
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(continuations.load(), 1);
    EXPECT_FALSE(promise.SetValue(99));
  }
}

TEST(Future, ContinuationsRunOnTheNamedExecutor) {
  ThreadExecutor named;
  std::thread::id first, second, onDefault;
  const auto caller = std::this_thread::get_id();

  Promise<int> promise;
  auto chain = promise.GetFuture()
                   .ThenOnSuccess([&](int v) { first = std::this_thread::get_id(); return v; }, named.loop)
                   // No executor named: the chain keeps the one named before.
                   .ThenOnSuccess([&](int v) { second = std::this_thread::get_id(); return v; });
  promise.SetValue(1);
  ExpectCompletes(chain);
  EXPECT_EQ(first, named.worker.get_id());
  EXPECT_EQ(second, named.worker.get_id());

  // The default executor never runs a continuation on the caller's stack, even when the
  // future is already complete.
  auto pooled = MakeReadyFuture(1).ThenOnSuccess([&](int) { onDefault = std::this_thread::get_id(); });
  ExpectCompletes(pooled);
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
  EXPECT_EQ(ExtractResultFromException(std::make_exception_ptr(null_pointer_exception("ns::IThing"))),
            kErrorPreconditionFailed);
  EXPECT_NE(ExtractMessageFromException(std::make_exception_ptr(null_pointer_exception("ns::IThing"))).find("ns::IThing"),
            std::string::npos);
}

}  // namespace

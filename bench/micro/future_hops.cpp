// Continuation overhead per hop: a chain of N ThenOnSuccess hops, built before the promise is
// completed, then completed and waited for. "per_hop" is wall time divided by hops.
//
// Inline: every hop runs on the completing thread, so this is the cost of the future machinery
// alone (allocation, locking, type erasure). Default executor: every hop is a post to the pool,
// so this adds the hand-off between threads that real continuations pay.

#include <benchmark/benchmark.h>

#include "kelcore/Future.h"

namespace {

using namespace kelcore::async;

void RunChain(benchmark::State& state, const ExecutorRef& executor) {
  const auto hops = state.range(0);
  for (auto _ : state) {
    Promise<int> promise;
    Future<int> tail = promise.GetFuture();
    for (int64_t i = 0; i < hops; ++i) tail = tail.ThenOnSuccess([](int v) { return v + 1; }, executor);
    promise.SetValue(0);
    if (tail.Get() != hops) state.SkipWithError("wrong result");
  }
  state.counters["per_hop"] = benchmark::Counter(static_cast<double>(hops),
                                                 benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
}

void BM_FutureHopsInline(benchmark::State& state) { RunChain(state, GetInlineExecutor()); }
void BM_FutureHopsDefaultExecutor(benchmark::State& state) { RunChain(state, GetDefaultExecutor()); }

BENCHMARK(BM_FutureHopsInline)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(BM_FutureHopsDefaultExecutor)->Arg(1)->Arg(16)->Arg(256)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

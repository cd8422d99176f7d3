#pragma once
// Future<T> / Promise<T>: a one-shot asynchronous result with continuations.
//
// A failure travels as an exception inside the future (normally a kel_exception carrying a
// result code). Continuations are attached with Then (runs on completion either way and
// receives the completed future) or ThenOnSuccess (receives the value; a failure passes
// through without running it). Each continuation runs on the executor it names, by default
// the executor the promise was made on, else the shared default executor. A continuation may
// return a plain value or another Future, which the returned future then follows.
//
// A promise whose last copy is destroyed without being set fails its future with
// kErrorFailed ("Broken promise"), so a dropped request can never leave a caller waiting.

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "kelcore/Executor.h"
#include "kelcore/KelException.h"

namespace kelcore::async {

template <class T>
class Future;
template <class T>
class Promise;

namespace detail {

template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

template <class T>
struct SharedState {
  explicit SharedState(ExecutorRef exec) : executor(std::move(exec)) {}

  std::mutex mutex;
  std::condition_variable ready;
  bool done = false;
  // The completing thread is still running continuations. Continuations attached meanwhile
  // (from a continuation, or from another thread) join its queue instead of running at once, so
  // they all start in the order they were attached.
  bool draining = false;
  std::optional<Stored<T>> value;
  std::exception_ptr error;
  std::vector<Task> continuations;
  ExecutorRef executor;  // default executor for continuations; may be null

  template <class Setter>
  bool Complete(Setter&& set) {
    std::vector<Task> run;
    {
      std::lock_guard lock(mutex);
      if (done) return false;
      set(*this);
      done = true;
      draining = true;
      run.swap(continuations);
    }
    ready.notify_all();
    for (;;) {
      for (auto& task : run) {
        // A continuation task only posts to its executor and catches its own failures; if the
        // post itself throws, the task's promise breaks when the task is destroyed, and the
        // remaining continuations must still run.
        try {
          task();
        } catch (...) {
        }
      }
      run.clear();
      std::lock_guard lock(mutex);
      if (continuations.empty()) {
        draining = false;
        break;
      }
      run.swap(continuations);
    }
    return true;
  }

  void OnComplete(Task task) {
    {
      std::lock_guard lock(mutex);
      if (!done || draining) {
        continuations.push_back(std::move(task));
        return;
      }
    }
    task();
  }
};

template <class T>
struct Unwrap {
  using type = T;
  static constexpr bool isFuture = false;
};
template <class T>
struct Unwrap<Future<T>> {
  using type = T;
  static constexpr bool isFuture = true;
};

inline void PostOrRun(const ExecutorRef& executor, Task task) {
  if (executor) {
    executor->Post(std::move(task));
  } else {
    task();
  }
}

}  // namespace detail

template <class T>
class Future {
 public:
  using ValueType = T;

  Future() = default;
  explicit Future(std::shared_ptr<detail::SharedState<T>> state) : state_(std::move(state)) {}

  bool IsValid() const noexcept { return static_cast<bool>(state_); }
  explicit operator bool() const noexcept { return IsValid(); }

  bool IsReady() const {
    if (!state_) return false;
    std::lock_guard lock(state_->mutex);
    return state_->done;
  }

  void Wait() const {
    RequireValid();
    std::unique_lock lock(state_->mutex);
    state_->ready.wait(lock, [&] { return state_->done; });
  }

  template <class Rep, class Period>
  bool WaitFor(std::chrono::duration<Rep, Period> timeout) const {
    RequireValid();
    std::unique_lock lock(state_->mutex);
    return state_->ready.wait_for(lock, timeout, [&] { return state_->done; });
  }

  // Blocks until complete; returns the value or rethrows the failure. For tools and tests:
  // never call it on an executor thread that the completion itself needs.
  std::conditional_t<std::is_void_v<T>, void, T> Get() const {
    Wait();
    if (state_->error) std::rethrow_exception(state_->error);
    if constexpr (!std::is_void_v<T>) return *state_->value;
  }

  // The failure of a completed future, or null (also while still pending).
  std::exception_ptr GetException() const {
    if (!state_) return nullptr;
    std::lock_guard lock(state_->mutex);
    return state_->done ? state_->error : nullptr;
  }

  // 0 for a success, the failure's result code otherwise (call once complete).
  Result GetResult() const { return ExtractResultFromException(GetException()); }

  // Runs fn(Future<T>) once this completes, success or failure.
  template <class F>
  auto Then(F&& fn, ExecutorRef executor = nullptr) const {
    // Decayed: a continuation returning a reference yields a copy, never a dangling Future<T&>.
    using Raw = std::decay_t<std::invoke_result_t<std::decay_t<F>&, Future<T>>>;
    using R = typename detail::Unwrap<Raw>::type;
    RequireValid();
    Promise<R> next(executor ? executor : state_->executor);
    Future<R> result = next.GetFuture();
    ExecutorRef target = ResolveExecutor(executor);
    auto state = state_;
    state_->OnComplete([state, target, next = std::move(next), fn = std::forward<F>(fn)]() mutable {
      detail::PostOrRun(target, [state, next = std::move(next), fn = std::move(fn)]() mutable {
        Promise<R>::template Fulfil<Raw>(next, [&]() -> Raw { return fn(Future<T>(state)); });
      });
    });
    return result;
  }

  // Runs fn(value) (fn() for Future<void>) on success; a failure passes through unchanged.
  template <class F>
  auto ThenOnSuccess(F&& fn, ExecutorRef executor = nullptr) const {
    return Then(
        // By value: a continuation returning a reference to its argument would otherwise hand
        // back a reference to the temporary Get() returned.
        [fn = std::forward<F>(fn)](Future<T> done) mutable -> auto {
          if constexpr (std::is_void_v<T>) {
            done.Get();
            return fn();
          } else {
            return fn(done.Get());
          }
        },
        std::move(executor));
  }

 private:
  // An empty future (default-constructed or moved from) has nothing to wait on or continue.
  void RequireValid() const {
    if (!state_) throw kel_exception(kErrorPreconditionFailed, "Future is empty", {}, 0, {}, "!state_");
  }

  ExecutorRef ResolveExecutor(const ExecutorRef& requested) const {
    if (requested) return requested;
    if (state_->executor) return state_->executor;
    return GetDefaultExecutor();
  }

  std::shared_ptr<detail::SharedState<T>> state_;
};

template <class T>
class Promise {
 public:
  // executor: where continuations of this promise's future run unless they name their own.
  explicit Promise(ExecutorRef executor = nullptr)
      : core_(std::make_shared<Core>(std::make_shared<detail::SharedState<T>>(std::move(executor)))) {}

  Future<T> GetFuture() const { return Future<T>(core_->state); }

  // One-shot: the first completion wins; later ones return false and change nothing.
  template <class U = T, class = std::enable_if_t<!std::is_void_v<U>>>
  bool SetValue(U value) const {
    return core_->state->Complete([&](auto& s) { s.value.emplace(std::move(value)); });
  }
  template <class U = T, class = std::enable_if_t<std::is_void_v<U>>>
  bool SetValue() const {
    return core_->state->Complete([](auto& s) { s.value.emplace(); });
  }
  bool SetException(std::exception_ptr error) const {
    if (!error) error = std::make_exception_ptr(kel_exception(kErrorFailed, "Null exception"));
    return core_->state->Complete([&](auto& s) { s.error = std::move(error); });
  }
  bool SetException(const kel_exception& error) const { return SetException(std::make_exception_ptr(error)); }
  bool SetError(Result code, std::string message = {}) const {
    return SetException(kel_exception(code, std::move(message)));
  }

  // Sets the result of invoking produce(): its value (or, for a Future result, that future's
  // eventual outcome) or the exception it throws.
  template <class Raw, class Producer>
  static void Fulfil(const Promise& promise, Producer&& produce) {
    try {
      if constexpr (detail::Unwrap<Raw>::isFuture) {
        Raw inner = produce();
        if (!inner.IsValid()) {
          promise.SetError(kErrorFailed, "Continuation returned an empty future");
          return;
        }
        inner.Then(
            [promise](Raw done) {
              if (auto error = done.GetException()) {
                promise.SetException(error);
              } else if constexpr (std::is_void_v<T>) {
                promise.SetValue();
              } else {
                promise.SetValue(done.Get());
              }
            },
            GetInlineExecutor());
      } else if constexpr (std::is_void_v<Raw>) {
        produce();
        promise.SetValue();
      } else {
        promise.SetValue(produce());
      }
    } catch (...) {
      promise.SetException(std::current_exception());
    }
  }

 private:
  struct Core {
    explicit Core(std::shared_ptr<detail::SharedState<T>> s) : state(std::move(s)) {}
    ~Core() {
      state->Complete([](auto& s) {
        s.error = std::make_exception_ptr(kel_exception(kErrorFailed, "Broken promise"));
      });
    }
    std::shared_ptr<detail::SharedState<T>> state;
  };
  std::shared_ptr<Core> core_;
};

template <class T>
Future<std::decay_t<T>> MakeReadyFuture(T&& value) {
  Promise<std::decay_t<T>> promise;
  promise.SetValue(std::forward<T>(value));
  return promise.GetFuture();
}

inline Future<void> MakeReadyFuture() {
  Promise<void> promise;
  promise.SetValue();
  return promise.GetFuture();
}

template <class T>
Future<T> MakeFailedFuture(std::exception_ptr error) {
  Promise<T> promise;
  promise.SetException(std::move(error));
  return promise.GetFuture();
}

template <class T>
Future<T> MakeFailedFuture(Result code, std::string message = {}) {
  Promise<T> promise;
  promise.SetError(code, std::move(message));
  return promise.GetFuture();
}

}  // namespace kelcore::async

#pragma once
// Executors: where continuations and callbacks run.

#include <chrono>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace kelcore::async {

// A move-only unit of work (std::function would demand copyable captures).
class Task {
 public:
  Task() = default;
  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, Task> && std::is_invocable_v<F&>>>
  Task(F&& f) : impl_(std::make_unique<Impl<std::decay_t<F>>>(std::forward<F>(f))) {}
  Task(Task&&) noexcept = default;
  Task& operator=(Task&&) noexcept = default;
  explicit operator bool() const noexcept { return static_cast<bool>(impl_); }
  void operator()() { impl_->Run(); }

 private:
  struct Base {
    virtual ~Base() = default;
    virtual void Run() = 0;
  };
  template <class F>
  struct Impl final : Base {
    explicit Impl(F&& f) : fn(std::move(f)) {}
    explicit Impl(const F& f) : fn(f) {}
    void Run() override { fn(); }
    F fn;
  };
  std::unique_ptr<Base> impl_;
};

class IExecutor {
 public:
  virtual ~IExecutor() = default;
  // Queues the task. An executor that has shut down drops it (its captures are released).
  virtual void Post(Task task) = 0;
};
using ExecutorRef = std::shared_ptr<IExecutor>;

// The shared asynchronous executor: a small thread pool (Asio), created on first use.
// Never the caller's thread, so work posted here never runs on the caller's stack.
ExecutorRef GetDefaultExecutor();
// Runs the task at once, on the thread that posts it (the completing thread, for continuations).
ExecutorRef GetInlineExecutor();
// A serial executor for work that must still run while the process winds down; null once
// ShutdownPreTerminationExecutor has run.
ExecutorRef GetPreTerminationExecutor();
// Drains what is queued on the pre-termination executor and stops it (process end).
void ShutdownPreTerminationExecutor();

// The main thread is the thread that installed the main-thread dispatcher. Hosts install their
// own (posting into their UI loop); tools and tests without one use MainThreadRunLoop.
void InstallMainThreadDispatcher(ExecutorRef dispatcher);
void UninstallMainThreadDispatcher();
ExecutorRef GetMainThreadDispatcher();
bool IsMainThread() noexcept;

// A minimal main loop for hosts that have none: Post from any thread, run on the owner.
class MainThreadRunLoop : public IExecutor, public std::enable_shared_from_this<MainThreadRunLoop> {
 public:
  MainThreadRunLoop();
  ~MainThreadRunLoop() override;
  void Post(Task task) override;
  // Runs queued tasks until Stop() or until predicate() holds after a task; false on timeout.
  bool RunUntil(const std::function<bool()>& predicate,
                std::chrono::milliseconds timeout = std::chrono::milliseconds::max());
  // Runs what is queued now, without waiting; returns the number of tasks run.
  std::size_t RunPending();
  void Stop();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kelcore::async

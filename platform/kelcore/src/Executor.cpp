#include "kelcore/Executor.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>

// ThreadSanitizer cannot model fences. Asio's fenced block around each handler is redundant
// here anyway: the scheduler's mutex already orders the post before the run.
#if defined(__SANITIZE_THREAD__) && !defined(ASIO_DISABLE_FENCED_BLOCK)
#define ASIO_DISABLE_FENCED_BLOCK
#endif
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>

#include "kelcore/KelException.h"
#include "kelcore/Logging.h"

namespace kelcore::async {

namespace {

// A task that throws has nobody to report to: futures catch their own failures, so whatever
// escapes here is a bug in a bare Post. Log it rather than let it take a worker thread (and with
// it the process) down.
void RunGuarded(Task& task, const char* executorName) {
  try {
    task();
  } catch (...) {
    logging::Record record;
    record.level = logging::Level::Error;
    record.category = "kelcore";
    record.message = "Task escaped with an exception";
    record.fields = {{"executor", executorName},
                     {"message", ExtractMessageFromException(std::current_exception())}};
    logging::Log(std::move(record));
  }
}

// ---------------------------------------------------------------------------------------------
// Default executor

thread_local const void* tCurrentPool = nullptr;

class PoolExecutor final : public IExecutor {
 public:
  explicit PoolExecutor(std::size_t threads) : pool_(std::in_place, threads) {}

  void Post(Task task) override {
    std::shared_lock lock(mutex_);
    if (stopped_) {
      lock.unlock();
      return;  // the task (and every promise it holds) is released here, outside the lock
    }
    asio::post(pool_->get_executor(), [this, task = std::move(task)]() mutable {
      tCurrentPool = this;
      RunGuarded(task, "default");
    });
  }

  // Stops the pool: tasks already running finish, queued ones are destroyed unrun, later posts
  // are dropped. Queued tasks are dropped rather than drained so a task that waits on something
  // that will never come (a main loop that has already returned) cannot hang the exit.
  void Shutdown() {
    {
      std::unique_lock lock(mutex_);
      if (stopped_) return;
      stopped_ = true;
    }
    if (tCurrentPool == this) {
      // exit() called from one of our own tasks: a thread cannot join itself, so stop the
      // others and leave the pool to the OS.
      pool_->stop();
      return;
    }
    // ~thread_pool stops, joins and then destroys what is still queued; those destructors may
    // post again, which the stopped_ flag turns into a drop.
    pool_.reset();
  }

 private:
  std::shared_mutex mutex_;  // Post takes it shared: posting threads never wait on each other
  bool stopped_ = false;
  std::optional<asio::thread_pool> pool_;
};

std::size_t DefaultPoolSize() {
  const unsigned hardware = std::thread::hardware_concurrency();
  return hardware == 0 ? 2 : std::clamp(hardware, 2u, 4u);
}

std::shared_ptr<PoolExecutor>& DefaultPool() {
  // Deliberately never destroyed: code running in other static destructors may still post, and
  // must find a (stopped) executor rather than a destroyed one.
  static auto* pool = [] {
    auto* created = new std::shared_ptr<PoolExecutor>(std::make_shared<PoolExecutor>(DefaultPoolSize()));
    std::atexit([] { DefaultPool()->Shutdown(); });
    return created;
  }();
  return *pool;
}

class InlineExecutor final : public IExecutor {
 public:
  void Post(Task task) override { task(); }
};

// ---------------------------------------------------------------------------------------------
// Pre-termination executor: one worker thread, tasks run in posting order.

class SerialExecutor final : public IExecutor {
 public:
  SerialExecutor() : state_(std::make_shared<State>()) {
    worker_ = std::thread([state = state_] { Run(*state); });
  }
  ~SerialExecutor() override { Shutdown(); }

  void Post(Task task) override {
    {
      std::lock_guard lock(state_->mutex);
      if (!state_->closed) {
        state_->queue.push_back(std::move(task));
        state_->wake.notify_one();
        return;
      }
    }
    // Closed: the task is dropped here, outside the lock.
  }

  // Runs everything queued (including what those tasks post while draining), then joins.
  void Shutdown() {
    {
      std::lock_guard lock(state_->mutex);
      state_->stopping = true;
    }
    state_->wake.notify_all();
    std::lock_guard join(joinMutex_);
    if (!worker_.joinable()) return;
    if (worker_.get_id() == std::this_thread::get_id()) {
      // Shut down from one of its own tasks: the worker drains and ends on its own; the state
      // it needs is shared with it, so it outlives this object.
      worker_.detach();
    } else {
      worker_.join();
    }
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> queue;
    bool stopping = false;
    bool closed = false;
  };

  static void Run(State& state) {
    std::unique_lock lock(state.mutex);
    for (;;) {
      state.wake.wait(lock, [&] { return state.stopping || !state.queue.empty(); });
      if (state.queue.empty()) {
        state.closed = true;
        return;
      }
      Task task = std::move(state.queue.front());
      state.queue.pop_front();
      lock.unlock();
      RunGuarded(task, "pre-termination");
      task = Task();  // release the captures before retaking the lock
      lock.lock();
    }
  }

  std::shared_ptr<State> state_;
  std::mutex joinMutex_;
  std::thread worker_;
};

struct PreTermination {
  std::mutex mutex;
  std::shared_ptr<SerialExecutor> executor;
  bool shutDown = false;
  bool exitHookRegistered = false;
};

PreTermination& PreTerminationGlobals() {
  static auto* globals = new PreTermination;  // outlives every static destructor that may ask for it
  return *globals;
}

// ---------------------------------------------------------------------------------------------
// Main thread

struct MainThread {
  std::mutex mutex;
  ExecutorRef dispatcher;
  std::atomic<std::thread::id> owner{};
};

MainThread& MainThreadGlobals() {
  static auto* globals = new MainThread;
  return *globals;
}

}  // namespace

ExecutorRef GetDefaultExecutor() { return DefaultPool(); }

ExecutorRef GetInlineExecutor() {
  static const ExecutorRef* executor = new ExecutorRef(std::make_shared<InlineExecutor>());
  return *executor;
}

ExecutorRef GetPreTerminationExecutor() {
  auto& globals = PreTerminationGlobals();
  std::lock_guard lock(globals.mutex);
  if (globals.shutDown) return nullptr;
  if (!globals.executor) {
    globals.executor = std::make_shared<SerialExecutor>();
    if (!globals.exitHookRegistered) {
      globals.exitHookRegistered = true;
      // A joinable worker must not meet its std::thread destructor at exit.
      std::atexit([] { ShutdownPreTerminationExecutor(); });
    }
  }
  return globals.executor;
}

void ShutdownPreTerminationExecutor() {
  std::shared_ptr<SerialExecutor> executor;
  {
    auto& globals = PreTerminationGlobals();
    std::lock_guard lock(globals.mutex);
    globals.shutDown = true;
    executor = std::move(globals.executor);
  }
  if (executor) executor->Shutdown();
}

void InstallMainThreadDispatcher(ExecutorRef dispatcher) {
  auto& globals = MainThreadGlobals();
  ExecutorRef previous;
  {
    std::lock_guard lock(globals.mutex);
    previous = std::exchange(globals.dispatcher, std::move(dispatcher));
    globals.owner.store(globals.dispatcher ? std::this_thread::get_id() : std::thread::id());
  }
  // previous is released outside the lock: its destructor may drop tasks that post again.
}

void UninstallMainThreadDispatcher() { InstallMainThreadDispatcher(nullptr); }

ExecutorRef GetMainThreadDispatcher() {
  auto& globals = MainThreadGlobals();
  std::lock_guard lock(globals.mutex);
  return globals.dispatcher;
}

bool IsMainThread() noexcept {
  const auto owner = MainThreadGlobals().owner.load();
  return owner != std::thread::id() && owner == std::this_thread::get_id();
}

// ---------------------------------------------------------------------------------------------
// MainThreadRunLoop

struct MainThreadRunLoop::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Task> queue;
  bool stopRequested = false;
};

MainThreadRunLoop::MainThreadRunLoop() : state_(std::make_unique<State>()) {}

MainThreadRunLoop::~MainThreadRunLoop() {
  std::deque<Task> dropped;
  {
    std::lock_guard lock(state_->mutex);
    dropped.swap(state_->queue);
  }
  // Unrun tasks are released here, outside the lock.
}

void MainThreadRunLoop::Post(Task task) {
  {
    std::lock_guard lock(state_->mutex);
    state_->queue.push_back(std::move(task));
  }
  state_->wake.notify_one();
}

bool MainThreadRunLoop::RunUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  // A timeout past the clock's range (the default) means no timeout; adding it would overflow.
  const bool bounded =
      timeout < std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - start);
  const auto deadline = bounded ? start + timeout : Clock::time_point::max();
  const auto satisfied = [&] { return predicate && predicate(); };

  if (satisfied()) return true;
  for (;;) {
    Task task;
    {
      std::unique_lock lock(state_->mutex);
      const auto wakeUp = [&] { return state_->stopRequested || !state_->queue.empty(); };
      if (bounded) {
        if (Clock::now() >= deadline || !state_->wake.wait_until(lock, deadline, wakeUp)) return false;
      } else {
        state_->wake.wait(lock, wakeUp);
      }
      if (state_->stopRequested) {
        state_->stopRequested = false;
        return true;
      }
      task = std::move(state_->queue.front());
      state_->queue.pop_front();
    }
    task();
    if (satisfied()) return true;
  }
}

std::size_t MainThreadRunLoop::RunPending() {
  std::size_t available;
  {
    std::lock_guard lock(state_->mutex);
    available = state_->queue.size();
  }
  // Only what was queued on entry: a task that re-posts itself must not keep this call busy.
  std::size_t ran = 0;
  for (; ran < available; ++ran) {
    Task task;
    {
      std::lock_guard lock(state_->mutex);
      if (state_->queue.empty()) break;
      task = std::move(state_->queue.front());
      state_->queue.pop_front();
    }
    task();
  }
  return ran;
}

void MainThreadRunLoop::Stop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopRequested = true;
  }
  state_->wake.notify_all();
}

}  // namespace kelcore::async

// The completion thread. Threads: Post from any thread; the tasks run here alone, in order.

#include "CompletionThread.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>

#include "kelcore/Logging.h"

namespace kelnet {

CompletionThread::~CompletionThread() {
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

void CompletionThread::Start(Hooks hooks) {
  hooks_ = std::move(hooks);
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) {
    kelcore::logging::LogWarning("kelnet", "no eventfd for the completion thread: it looks for work every 10 ms", {});
  }
  thread_ = std::thread([this] { Run(); });
  threadId_ = thread_.get_id();
}

void CompletionThread::WakeLocked() {
  if (wakeSent_) return;
  wakeSent_ = true;
  const std::uint64_t one = 1;
  while (::write(wakeFd_, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void CompletionThread::Run(Task& task) {
  try {
    if (task.run) {
      task.run();
    } else if (task.completion) {
      task.completion(task.id, task.response);
    }
  } catch (const std::exception& error) {
    kelcore::logging::LogWarning("kelnet", "HTTP completion threw", {{"what", error.what()}});
  } catch (...) {
    kelcore::logging::LogWarning("kelnet", "HTTP completion threw", {});
  }
  // Its captures (a caller's state among them) go here, not on whichever thread comes next.
  task = Task{};
}

bool CompletionThread::Post(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  if (ended_) return false;
  tasks_.push_back(Task{std::move(task), nullptr, {}, nullptr});
  // A busy thread looks at the queue before it sleeps again: only a sleeping one needs the write.
  if (sleeping_) WakeLocked();
  return true;
}

bool CompletionThread::PostAll(std::vector<Task>& tasks) {
  std::lock_guard lock(mutex_);
  if (ended_) return false;
  for (auto& task : tasks) tasks_.push_back(std::move(task));
  if (sleeping_) WakeLocked();
  return true;
}

void CompletionThread::Wake() {
  // Always written, sleeping or not: the thread may have filled its poll set already and not yet
  // said it sleeps.
  std::lock_guard lock(mutex_);
  if (!ended_) WakeLocked();
}

void CompletionThread::Stop() {
  std::lock_guard lock(mutex_);
  stop_ = true;
  if (!ended_) WakeLocked();
}

void CompletionThread::Join() {
  if (thread_.joinable()) thread_.join();
}

void CompletionThread::Run() {
  std::vector<pollfd> polled;
  std::unique_lock lock(mutex_);
  bool ran = false;
  while (true) {
    if (!tasks_.empty()) {
      // Everything handed over so far, taken under one lock; what these tasks post runs after
      // them, in order.
      taken_.swap(tasks_);
      lock.unlock();
      for (auto& task : taken_) Run(task);
      taken_.clear();
      ran = true;
      lock.lock();
      continue;
    }
    if (ran && hooks_.onDrained) {
      ran = false;
      lock.unlock();
      hooks_.onDrained();
      lock.lock();
      continue;
    }
    if (stop_) {
      ended_ = true;
      return;
    }
    lock.unlock();
    polled.clear();
    polled.push_back({wakeFd_, POLLIN, 0});
    int timeout = hooks_.fillPoll ? hooks_.fillPoll(polled) : -1;
    if (wakeFd_ < 0 && (timeout < 0 || timeout > 10)) timeout = 10;
    lock.lock();
    if (!tasks_.empty() || stop_) continue;
    sleeping_ = true;
    lock.unlock();
    while (::poll(polled.data(), polled.size(), timeout) < 0 && errno == EINTR) {
    }
    if (polled[0].revents) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto drained = ::read(wakeFd_, &count, sizeof count);
    }
    lock.lock();
    // After the read: a wake-up written from here on is seen by the next poll.
    sleeping_ = false;
    wakeSent_ = false;
    lock.unlock();
    if (hooks_.onPolled) hooks_.onPolled(polled);
    lock.lock();
  }
}

}  // namespace kelnet

// The completion thread. Threads: Post from any thread; the tasks run here alone, in order.

#include "CompletionThread.h"

#include <exception>

#include "kelcore/Logging.h"

namespace kelnet {

void CompletionThread::Start(std::function<void()> onDrained) {
  onDrained_ = std::move(onDrained);
  thread_ = std::thread([this] { Run(); });
  threadId_ = thread_.get_id();
}

bool CompletionThread::Post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    if (ended_) return false;
    tasks_.push_back(std::move(task));
  }
  ready_.notify_one();
  return true;
}

bool CompletionThread::PostAll(std::vector<std::function<void()>>& tasks) {
  {
    std::lock_guard lock(mutex_);
    if (ended_) return false;
    for (auto& task : tasks) tasks_.push_back(std::move(task));
  }
  ready_.notify_one();
  return true;
}

void CompletionThread::Stop() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  ready_.notify_one();
}

void CompletionThread::Join() {
  if (thread_.joinable()) thread_.join();
}

void CompletionThread::Run() {
  std::unique_lock lock(mutex_);
  bool ran = false;
  while (true) {
    if (tasks_.empty() && ran && onDrained_) {
      ran = false;
      lock.unlock();
      onDrained_();
      lock.lock();
      continue;
    }
    ready_.wait(lock, [this] { return !tasks_.empty() || stop_; });
    if (tasks_.empty()) {
      ended_ = true;
      return;
    }
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    try {
      task();
    } catch (const std::exception& error) {
      kelcore::logging::LogWarning("kelnet", "HTTP completion threw", {{"what", error.what()}});
    } catch (...) {
      kelcore::logging::LogWarning("kelnet", "HTTP completion threw", {});
    }
    // Its captures (a caller's state among them) go here, not on whichever thread comes next.
    task = nullptr;
    ran = true;
    lock.lock();
  }
}

}  // namespace kelnet

#pragma once
// The completion thread: runs the completions of POSTs and the tasks of kelnet's timers, one at a
// time in the order they were handed over, so that no caller's code ever runs on the network
// thread (where it would hold up every transfer) nor on the delivery thread (where a consumer
// that stopped writing would hold it up). See doc/decisions/010.
//
// Threads: Post from any thread; Stop from the network thread as it ends; Join from any thread
// but this one. The onDrained hook (Transport's: it writes the POSTs the batch started) runs here
// whenever the queue has run dry, before the thread waits.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kelnet {

class CompletionThread {
 public:
  // onDrained runs on this thread each time it has run what was queued and is about to wait.
  void Start(std::function<void()> onDrained = nullptr);
  // False once the thread has ended (the task is not run; the caller runs it itself).
  bool Post(std::function<void()> task);
  // The same for several tasks, in order, in one hand-off; they are moved from only when taken.
  bool PostAll(std::vector<std::function<void()>>& tasks);
  // Runs what is queued, and what that posts, then ends.
  void Stop();
  void Join();
  std::thread::id ThreadId() const { return threadId_.load(); }

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> tasks_;
  std::function<void()> onDrained_;
  bool stop_ = false;
  bool ended_ = false;
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};
};

}  // namespace kelnet

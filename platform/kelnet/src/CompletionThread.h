#pragma once
// The completion thread: runs the completions of POSTs and the tasks of kelnet's timers, one at a
// time in the order they were handed over, so that no caller's code ever runs on the network
// thread (where it would hold up every transfer) nor on the delivery thread (where a consumer
// that stopped writing would hold it up). See doc/decisions/010.
//
// It is also where the answers to POSTs over kelnet's own HTTP/2 connections are read (decision
// 045): when it has nothing to run it sleeps in poll() on those sockets as well as on its own
// wake-up, so that a round of answers, the completions they call and the requests those start
// cost one wake-up of one thread, as in a single-threaded client.
//
// Threads: Post, PostAll, Wake from any thread; Stop from the network thread as it ends; Join from
// any thread but this one. The three hooks run on this thread alone.

#include <poll.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "kelnet/Http.h"

namespace kelnet {

class CompletionThread {
 public:
  // What the thread runs: a task, or a POST's completion with its answer (kept as it is, so that
  // no wrapper is allocated per request).
  struct Task {
    std::function<void()> run;
    Completion completion;
    kelcore::utility::Guid id;
    std::shared_ptr<Response> response;
  };
  // Runs one, on the calling thread; what it throws is logged.
  static void Run(Task& task);

  struct Hooks {
    // Each time it has run what was queued (Transport's: it writes the POSTs the batch started).
    std::function<void()> onDrained;
    // Before it sleeps: appends the sockets to watch; returns the longest sleep in milliseconds
    // (-1: none).
    std::function<int(std::vector<pollfd>&)> fillPoll;
    // After it woke: the same entries with their revents.
    std::function<void(std::vector<pollfd>&)> onPolled;
  };

  CompletionThread() = default;
  ~CompletionThread();
  CompletionThread(const CompletionThread&) = delete;
  CompletionThread& operator=(const CompletionThread&) = delete;

  void Start(Hooks hooks = {});
  // False once the thread has ended (the task is not run; the caller runs it itself).
  bool Post(std::function<void()> task);
  // Several, in order, in one hand-off; they are moved from only when taken.
  bool PostAll(std::vector<Task>& tasks);
  // What fillPoll would give has changed: the thread polls again, with the new set.
  void Wake();
  // Runs what is queued, and what that posts, then ends.
  void Stop();
  void Join();
  std::thread::id ThreadId() const { return threadId_.load(); }

 private:
  void Run();
  void WakeLocked();

  std::mutex mutex_;
  std::vector<Task> tasks_;  // handed over, not yet taken
  std::vector<Task> taken_;  // this thread's: what it runs now, in order
  Hooks hooks_;
  int wakeFd_ = -1;         // an eventfd: written to wake the thread from poll()
  bool sleeping_ = false;   // in poll(), or about to be: a new task must wake it
  bool wakeSent_ = false;   // wakeFd_ has been written since the thread last drained it
  bool stop_ = false;
  bool ended_ = false;
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};
};

}  // namespace kelnet

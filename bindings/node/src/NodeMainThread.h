#pragma once
// NodeMainThread: an executor that runs its tasks on the JavaScript thread, installed as
// kelcore's main-thread dispatcher so the library's messages (and the addon's own promise
// settlements and events) reach scripts on the thread that runs them.
//
// One napi thread-safe function wakes the JavaScript thread; posts are queued here and coalesced
// into one wake-up per batch. The handle is unreferenced unless someone holds it (a script
// waiting on a promise), so queued work alone never keeps the process alive. Once closed (the
// environment is going away), posts are dropped: nothing touches Node-API after teardown.

#include <node_api.h>

#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "kelcore/Executor.h"

namespace ostriolib::node {

class NodeMainThread final : public kelcore::async::IExecutor, public std::enable_shared_from_this<NodeMainThread> {
 public:
  // On the JavaScript thread of env. Throws Napi::Error when Node refuses the handle.
  static std::shared_ptr<NodeMainThread> Create(napi_env env);
  ~NodeMainThread() override;

  // From any thread.
  void Post(kelcore::async::Task task) override;
  // As Post; false (the task released on this thread) once closed.
  bool TryPost(kelcore::async::Task task);

  // JavaScript thread only: while at least one hold is taken the event loop stays alive.
  void Hold();
  void Release();
  // JavaScript thread only: stops taking work, drops what is queued, lets the handle go.
  void Close();

  bool OnJavaScriptThread() const noexcept { return std::this_thread::get_id() == jsThread_; }

 private:
  NodeMainThread(napi_env env, std::thread::id jsThread) : env_(env), jsThread_(jsThread) {}
  static void CallJs(napi_env env, napi_value callback, void* context, void* data);
  static void Finalize(napi_env env, void* data, void* hint);
  void Drain(napi_env env);

  const napi_env env_;
  const std::thread::id jsThread_;
  std::mutex mutex_;
  std::deque<kelcore::async::Task> queue_;
  bool scheduled_ = false;  // a wake-up is on its way
  bool closed_ = false;
  napi_threadsafe_function wake_ = nullptr;
  int holds_ = 0;  // JavaScript thread only
};

}  // namespace ostriolib::node

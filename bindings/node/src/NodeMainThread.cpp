#include "NodeMainThread.h"

#include <napi.h>

#include <utility>

namespace ostriolib::node {

std::shared_ptr<NodeMainThread> NodeMainThread::Create(napi_env env) {
  std::shared_ptr<NodeMainThread> self(new NodeMainThread(env, std::this_thread::get_id()));
  napi_value name;
  NAPI_THROW_IF_FAILED(env, napi_create_string_utf8(env, "ostriolib", NAPI_AUTO_LENGTH, &name), nullptr);
  // The thread-safe function owns a reference to us until Node finalises it, so a wake-up that
  // is already queued never finds us gone.
  auto* owner = new std::shared_ptr<NodeMainThread>(self);
  const napi_status status = napi_create_threadsafe_function(env, nullptr, nullptr, name, 0, 1, owner, &Finalize,
                                                             owner, &CallJs, &self->wake_);
  if (status != napi_ok) {
    delete owner;
    NAPI_THROW_IF_FAILED(env, status, nullptr);
  }
  napi_unref_threadsafe_function(env, self->wake_);
  return self;
}

NodeMainThread::~NodeMainThread() = default;

void NodeMainThread::Post(kelcore::async::Task task) { TryPost(std::move(task)); }

bool NodeMainThread::TryPost(kelcore::async::Task task) {
  std::unique_lock lock(mutex_);
  if (closed_) {
    lock.unlock();
    // Released here, outside the lock: its captures' destructors may post again.
    return false;
  }
  queue_.push_back(std::move(task));
  if (!scheduled_) {
    scheduled_ = napi_call_threadsafe_function(wake_, nullptr, napi_tsfn_nonblocking) == napi_ok;
  }
  return true;
}

void NodeMainThread::CallJs(napi_env env, napi_value, void* context, void*) {
  // A null env: Node is tearing the function down and no JavaScript may run.
  if (!env || !context) return;
  (*static_cast<std::shared_ptr<NodeMainThread>*>(context))->Drain(env);
}

void NodeMainThread::Finalize(napi_env, void* data, void*) { delete static_cast<std::shared_ptr<NodeMainThread>*>(data); }

void NodeMainThread::Drain(napi_env env) {
  std::deque<kelcore::async::Task> batch;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    batch.swap(queue_);
    scheduled_ = false;
  }
  for (auto& task : batch) {
    // Each task gets its own handle scope: a long batch must not pile up handles.
    napi_handle_scope scope = nullptr;
    napi_open_handle_scope(env, &scope);
    try {
      task();
    } catch (...) {
      // Tasks report their own failures (kelcore's continuations catch theirs; the addon's turn
      // script exceptions into uncaught exceptions); one failure must not stop the batch.
    }
    task = {};
    if (scope) napi_close_handle_scope(env, scope);
  }
}

void NodeMainThread::Hold() {
  if (holds_++ == 0 && !closed_) napi_ref_threadsafe_function(env_, wake_);
}

void NodeMainThread::Release() {
  if (holds_ > 0 && --holds_ == 0 && !closed_) napi_unref_threadsafe_function(env_, wake_);
}

void NodeMainThread::Close() {
  std::deque<kelcore::async::Task> dropped;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    closed_ = true;
    dropped.swap(queue_);
  }
  // No post reaches the function any more (closed_ is tested under the same lock), so it can go.
  napi_release_threadsafe_function(wake_, napi_tsfn_abort);
}

}  // namespace ostriolib::node

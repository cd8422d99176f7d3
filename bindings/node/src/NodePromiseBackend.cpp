#include "NodePromiseBackend.h"

#include <utility>

#include "NodeScriptEngine.h"

namespace ostriolib::node {

std::shared_ptr<NodePromiseBackend> NodePromiseBackend::Create(Napi::Env env, std::shared_ptr<NodeScriptEngine> engine) {
  std::shared_ptr<NodePromiseBackend> backend(new NodePromiseBackend(std::move(engine)));
  napi_value promise = nullptr;
  NAPI_THROW_IF_FAILED(env, napi_create_promise(env, &backend->deferred_, &promise), nullptr);
  backend->promise_ = Napi::Reference<Napi::Promise>::New(Napi::Promise(env, promise), 1);
  backend->engine_->PromiseMade();
  return backend;
}

NodePromiseBackend::~NodePromiseBackend() {
  // Only a promise whose engine closed before it settled still has its reference, and this may be
  // any thread: Node-API is out of reach, and the environment that owned the reference is gone.
  if (!promise_.IsEmpty()) promise_.SuppressDestruct();
}

void NodePromiseBackend::Resolve(kelscripting::ScriptValue value) { Post(Outcome::Resolved, std::move(value), {}, 0); }

void NodePromiseBackend::Reject(kelscripting::ScriptValue reason) { Post(Outcome::Rejected, std::move(reason), {}, 0); }

void NodePromiseBackend::RejectWithError(std::string message, kelcore::Result code) {
  Post(Outcome::Failed, {}, std::move(message), code);
}

void NodePromiseBackend::Post(Outcome outcome, kelscripting::ScriptValue value, std::string message,
                              kelcore::Result code) {
  // Always a separate turn of the JavaScript thread, even when settled during the call that made
  // the promise: by then the script has it.
  engine_->TryPost([self = shared_from_this(), outcome, value = std::move(value), message = std::move(message), code] {
    if (!self->engine_->IsOpen()) return;
    self->Settle(self->engine_->Env(), outcome, value, message, code);
  });
}

Napi::Value NodePromiseBackend::HandOut(Napi::Env env) {
  if (promise_.IsEmpty() || handedOut_) {
    throw Napi::Error::New(env, "A script promise can be handed to a script only once, before it settles");
  }
  handedOut_ = true;
  return promise_.Value();
}

void NodePromiseBackend::Settle(Napi::Env env, Outcome outcome, const kelscripting::ScriptValue& value,
                                const std::string& message, kelcore::Result code) {
  napi_deferred deferred = std::exchange(deferred_, nullptr);
  if (!deferred) return;
  promise_.Reset();
  engine_->PromiseSettled();
  if (!handedOut_) {
    napi_resolve_deferred(env, deferred, env.Undefined());
    return;
  }
  napi_value settled = nullptr;
  bool reject = outcome != Outcome::Resolved;
  try {
    settled = outcome == Outcome::Failed ? MakeFailure(env, message, code).Value() : engine_->ToJavaScript(env, value);
  } catch (const Napi::Error& error) {
    settled = error.Value();
    reject = true;
  }
  if (reject) {
    napi_reject_deferred(env, deferred, settled);
  } else {
    napi_resolve_deferred(env, deferred, settled);
  }
}

}  // namespace ostriolib::node

#pragma once
// NodePromiseBackend: the JavaScript promise behind a kelscripting::NativePromise.
//
// Made on the JavaScript thread; settled from any thread by posting the settlement there. A
// promise that never reached a script (the method that made it failed) settles quietly with
// undefined: a rejection nobody can observe would end the process as an unhandled rejection.

#include <napi.h>

#include <memory>
#include <string>

#include "kelscripting/ScriptEngine.h"

namespace ostriolib::node {

class NodeScriptEngine;

class NodePromiseBackend final : public kelscripting::IPromiseBackend,
                                 public std::enable_shared_from_this<NodePromiseBackend> {
 public:
  // JavaScript thread.
  static std::shared_ptr<NodePromiseBackend> Create(Napi::Env env, std::shared_ptr<NodeScriptEngine> engine);
  ~NodePromiseBackend() override;

  void Resolve(kelscripting::ScriptValue value) override;
  void Reject(kelscripting::ScriptValue reason) override;
  void RejectWithError(std::string message, kelcore::Result code) override;

  // JavaScript thread: the promise, for the script the method returns it to.
  Napi::Value HandOut(Napi::Env env);

 private:
  enum class Outcome { Resolved, Rejected, Failed };
  NodePromiseBackend(std::shared_ptr<NodeScriptEngine> engine) : engine_(std::move(engine)) {}
  void Post(Outcome outcome, kelscripting::ScriptValue value, std::string message, kelcore::Result code);
  // JavaScript thread.
  void Settle(Napi::Env env, Outcome outcome, const kelscripting::ScriptValue& value, const std::string& message,
              kelcore::Result code);

  const std::shared_ptr<NodeScriptEngine> engine_;
  // JavaScript thread only.
  napi_deferred deferred_ = nullptr;
  Napi::Reference<Napi::Promise> promise_;  // until handed out or settled
  bool handedOut_ = false;
};

}  // namespace ostriolib::node

#pragma once
// NodeScriptEngine: kelscripting realised on Node. One per process, bound to the JavaScript
// thread that first loads the addon.
//
// It builds one JavaScript class per registered script class (static methods, instance methods,
// constants as read-only statics; event classes also get addEventListener/removeEventListener),
// groups them by namespace, and is the one script context: promises are made in it and events
// are delivered in it. Native code may settle promises and queue events from any thread; both
// reach JavaScript through the NodeMainThread executor. A promise a script waits on holds the
// event loop open until it settles, like any pending I/O.
//
// Teardown (the environment's cleanup hook): the engine stops taking work, uninstalls itself
// from kelscripting and its executor from kelcore, and drops its JavaScript references there on
// the JavaScript thread; native objects that outlive it find a closed context.

#include <napi.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "NodeMainThread.h"
#include "kelscripting/ClassDefinition.h"
#include "kelscripting/ScriptEngine.h"
#include "kelscripting/ScriptObject.h"

namespace ostriolib::node {

class NodeScriptEngine final : public kelscripting::IScriptEngine,
                               public kelscripting::IScriptContext,
                               public std::enable_shared_from_this<NodeScriptEngine> {
 public:
  struct ClassInfo;
  struct MethodBinding {
    NodeScriptEngine* engine;
    const ClassInfo* owner;
    const kelscripting::MethodDefinition* method;
  };
  struct ClassInfo {
    NodeScriptEngine* engine = nullptr;
    std::shared_ptr<const kelscripting::ClassDefinition> definition;
    Napi::FunctionReference constructor;
    std::vector<std::unique_ptr<MethodBinding>> methods;
  };

  // JavaScript thread. Throws Napi::Error when another JavaScript thread already has the engine.
  static std::shared_ptr<NodeScriptEngine> Attach(Napi::Env env);
  ~NodeScriptEngine() override;

  // JavaScript thread: puts each class under its namespaces (a class without one at the top).
  void ExportClasses(Napi::Object exports);

  // kelscripting, from any thread.
  bool QueueRootEvent(kelscripting::RootEvent event) override;
  std::shared_ptr<kelscripting::IPromiseBackend> CreatePromise() override;

  // The rest: JavaScript thread only.
  bool TryPost(kelcore::async::Task task) { return mainThread_->TryPost(std::move(task)); }
  Napi::Value ToJavaScript(Napi::Env env, const kelscripting::ScriptValue& value);
  // The JavaScript object for a native one: a new instance of its class.
  Napi::Value Wrap(Napi::Env env, const std::shared_ptr<kelscripting::ScriptObject>& object);
  // What the constructor being run by Wrap wraps (null when a script calls the constructor).
  std::shared_ptr<kelscripting::ScriptObject> TakeConstructing() { return std::exchange(constructing_, nullptr); }
  Napi::Value Invoke(const Napi::CallbackInfo& info, const MethodBinding& binding,
                     const std::shared_ptr<kelscripting::ScriptObject>& self);
  void AddListener(const ClassInfo& owner, const std::string& eventName, Napi::Function listener);
  void RemoveListener(const ClassInfo& owner, const std::string& eventName, Napi::Function listener);
  void PromiseMade();
  void PromiseSettled();
  bool IsOpen() const noexcept { return open_; }
  Napi::Env Env() const { return Napi::Env(env_); }

 private:
  explicit NodeScriptEngine(std::shared_ptr<NodeMainThread> mainThread) : mainThread_(std::move(mainThread)) {}
  void BuildClasses(Napi::Env env);
  void Deliver(Napi::Env env, const kelscripting::RootEvent& event);
  void Detach();

  const std::shared_ptr<NodeMainThread> mainThread_;
  // JavaScript thread only.
  napi_env env_ = nullptr;
  bool open_ = false;
  std::map<std::string, std::unique_ptr<ClassInfo>, std::less<>> classes_;
  std::map<std::pair<std::string, std::string>, std::vector<Napi::FunctionReference>> listeners_;
  std::shared_ptr<kelscripting::ScriptObject> constructing_;
  int pendingPromises_ = 0;
};

// Throws the JavaScript error for a failure: an Error whose code is the result code.
[[noreturn]] void ThrowFailure(Napi::Env env, const std::string& message, kelcore::Result code);
Napi::Error MakeFailure(Napi::Env env, const std::string& message, kelcore::Result code);

}  // namespace ostriolib::node

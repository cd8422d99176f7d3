#include "NodeScriptEngine.h"

#include <algorithm>

#include "NodePromiseBackend.h"
#include "ScriptObjectWrap.h"
#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelscripting/NativePromise.h"
#include "kelscripting/ObjectFactory.h"

namespace ostriolib::node {

using kelscripting::ScriptValue;
using kelscripting::ValueType;

namespace {

// The process has one kelcore main thread and one kelscripting engine, so the addon serves one
// JavaScript thread at a time.
std::mutex sAttachMutex;
bool sAttached = false;

}  // namespace

Napi::Error MakeFailure(Napi::Env env, const std::string& message, kelcore::Result code) {
  Napi::Error error = Napi::Error::New(env, message);
  error.Set("code", Napi::Number::New(env, code));
  return error;
}

void ThrowFailure(Napi::Env env, const std::string& message, kelcore::Result code) {
  throw MakeFailure(env, message, code);
}

std::shared_ptr<NodeScriptEngine> NodeScriptEngine::Attach(Napi::Env env) {
  {
    std::lock_guard lock(sAttachMutex);
    if (sAttached) {
      throw Napi::Error::New(env, "ostriolib is already loaded on another JavaScript thread of this process");
    }
    sAttached = true;
  }
  try {
    std::shared_ptr<NodeScriptEngine> engine(new NodeScriptEngine(NodeMainThread::Create(env)));
    engine->env_ = env;
    engine->open_ = true;
    engine->BuildClasses(env);
    kelscripting::InstallScriptEngine(engine);
    kelcore::async::InstallMainThreadDispatcher(engine->mainThread_);
    env.AddCleanupHook([engine] { engine->Detach(); });
    return engine;
  } catch (...) {
    std::lock_guard lock(sAttachMutex);
    sAttached = false;
    throw;
  }
}

NodeScriptEngine::~NodeScriptEngine() {
  // Whatever JavaScript references are left belong to an environment that is gone.
  for (auto& [name, info] : classes_) info->constructor.SuppressDestruct();
  for (auto& [key, references] : listeners_) {
    for (auto& reference : references) reference.SuppressDestruct();
  }
}

void NodeScriptEngine::Detach() {
  open_ = false;
  if (kelscripting::GetScriptEngine().get() == this) kelscripting::InstallScriptEngine(nullptr);
  if (kelcore::async::GetMainThreadDispatcher() == mainThread_) kelcore::async::UninstallMainThreadDispatcher();
  mainThread_->Close();
  listeners_.clear();
  classes_.clear();
  constructing_.reset();
  std::lock_guard lock(sAttachMutex);
  sAttached = false;
}

void NodeScriptEngine::BuildClasses(Napi::Env env) {
  for (auto& definition : kelscripting::ClassRegistry::Classes()) {
    auto info = std::make_unique<ClassInfo>();
    info->engine = this;
    info->definition = definition;
    info->constructor = Napi::Persistent(ScriptObjectWrap::DefineClass(env, *info));
    classes_.emplace(definition->Name(), std::move(info));
  }
}

void NodeScriptEngine::ExportClasses(Napi::Object exports) {
  Napi::Env env = exports.Env();
  for (auto& [name, info] : classes_) {
    const auto& namespaces = info->definition->Namespaces();
    if (namespaces.empty()) {
      exports.Set(name, info->constructor.Value());
      continue;
    }
    for (const auto& space : namespaces) {
      Napi::Value existing = exports.Get(space.name);
      Napi::Object target = existing.IsObject() ? existing.As<Napi::Object>() : Napi::Object::New(env);
      target.Set(name, info->constructor.Value());
      exports.Set(space.name, target);
    }
  }
}

bool NodeScriptEngine::QueueRootEvent(kelscripting::RootEvent event) {
  return mainThread_->TryPost([self = shared_from_this(), event = std::move(event)] {
    if (self->open_) self->Deliver(Napi::Env(self->env_), event);
  });
}

void NodeScriptEngine::Deliver(Napi::Env env, const kelscripting::RootEvent& event) {
  auto found = listeners_.find({event.className, event.eventName});
  if (found == listeners_.end() || found->second.empty()) return;
  // Listeners may add or remove listeners while being called; this delivery goes to those
  // subscribed when it started.
  std::vector<Napi::Function> targets;
  for (auto& reference : found->second) targets.push_back(reference.Value());

  Napi::Value jsEvent;
  try {
    const auto object = event.factory ? event.factory(shared_from_this()) : nullptr;
    if (!object) return;
    jsEvent = Wrap(env, object);
    jsEvent.As<Napi::Object>().DefineProperty(
        Napi::PropertyDescriptor::Value("type", Napi::String::New(env, object->EventName()), napi_enumerable));
  } catch (const Napi::Error& error) {
    napi_fatal_exception(env, error.Value());
    return;
  } catch (const std::exception& error) {
    napi_fatal_exception(env, MakeFailure(env, error.what(), kelcore::kErrorFailed).Value());
    return;
  }
  for (auto& target : targets) {
    try {
      target.Call(env.Undefined(), {jsEvent});
    } catch (const Napi::Error& error) {
      // As an event emitter does: a listener's exception is the process's uncaught exception.
      napi_fatal_exception(env, error.Value());
    }
  }
}

std::shared_ptr<kelscripting::IPromiseBackend> NodeScriptEngine::CreatePromise() {
  if (!mainThread_->OnJavaScriptThread()) {
    throw kelcore::kel_exception(kelcore::kErrorPreconditionFailed, "Script promises are made on the JavaScript thread");
  }
  if (!open_) throw kelcore::kel_exception(kelcore::kErrorPreconditionFailed, "The script context is closed");
  return NodePromiseBackend::Create(Napi::Env(env_), shared_from_this());
}

void NodeScriptEngine::PromiseMade() {
  if (pendingPromises_++ == 0) mainThread_->Hold();
}

void NodeScriptEngine::PromiseSettled() {
  if (pendingPromises_ > 0 && --pendingPromises_ == 0) mainThread_->Release();
}

Napi::Value NodeScriptEngine::ToJavaScript(Napi::Env env, const ScriptValue& value) {
  switch (value.Type()) {
    case ValueType::Undefined:
      return env.Undefined();
    case ValueType::Boolean:
      return Napi::Boolean::New(env, value.AsBoolean());
    case ValueType::Number:
      return Napi::Number::New(env, value.AsNumber());
    case ValueType::String:
      return Napi::String::New(env, value.AsString());
    case ValueType::Object:
      return value.AsObject() ? Wrap(env, value.AsObject()) : env.Null();
    case ValueType::Promise: {
      const auto& promise = value.AsPromise();
      auto backend = promise ? std::dynamic_pointer_cast<NodePromiseBackend>(promise->Backend()) : nullptr;
      if (!backend) throw Napi::Error::New(env, "A promise from another script engine");
      return backend->HandOut(env);
    }
  }
  return env.Undefined();
}

Napi::Value NodeScriptEngine::Wrap(Napi::Env env, const std::shared_ptr<kelscripting::ScriptObject>& object) {
  auto found = classes_.find(object->ClassName());
  if (found == classes_.end()) throw Napi::Error::New(env, "No script class named " + object->ClassName());
  constructing_ = object;
  try {
    Napi::Value wrapped = found->second->constructor.New({});
    constructing_.reset();
    return wrapped;
  } catch (...) {
    constructing_.reset();
    throw;
  }
}

Napi::Value NodeScriptEngine::Invoke(const Napi::CallbackInfo& info, const MethodBinding& binding,
                                     const std::shared_ptr<kelscripting::ScriptObject>& self) {
  Napi::Env env = info.Env();
  kelscripting::CallContext call;
  call.context = self && self->Context() ? self->Context() : kelscripting::ScriptContextRef(shared_from_this());
  call.self = self;
  ScriptValue result;
  try {
    result = binding.method->handler(call);
  } catch (const Napi::Error&) {
    throw;
  } catch (const kelcore::kel_exception& failure) {
    ThrowFailure(env, failure.what(), failure.GetResult());
  } catch (const std::exception& failure) {
    ThrowFailure(env, failure.what(), kelcore::kErrorFailed);
  }
  return ToJavaScript(env, result);
}

void NodeScriptEngine::AddListener(const ClassInfo& owner, const std::string& eventName, Napi::Function listener) {
  auto& references = listeners_[{owner.definition->Name(), eventName}];
  const bool known = std::any_of(references.begin(), references.end(),
                                 [&](const Napi::FunctionReference& r) { return r.Value().StrictEquals(listener); });
  if (!known) references.push_back(Napi::Persistent(listener));
}

void NodeScriptEngine::RemoveListener(const ClassInfo& owner, const std::string& eventName, Napi::Function listener) {
  auto found = listeners_.find({owner.definition->Name(), eventName});
  if (found == listeners_.end()) return;
  auto& references = found->second;
  references.erase(std::remove_if(references.begin(), references.end(),
                                  [&](const Napi::FunctionReference& r) { return r.Value().StrictEquals(listener); }),
                   references.end());
}

}  // namespace ostriolib::node

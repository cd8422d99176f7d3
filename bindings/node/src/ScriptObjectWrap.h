#pragma once
// ScriptObjectWrap: the JavaScript side of a kelscripting::ScriptObject. One wrapper class serves
// every script class; the class a constructor builds comes with it as its data.

#include <napi.h>

#include <memory>

#include "NodeScriptEngine.h"
#include "kelscripting/ScriptObject.h"

namespace ostriolib::node {

class ScriptObjectWrap : public Napi::ObjectWrap<ScriptObjectWrap> {
 public:
  // Scripts cannot construct script objects; only the engine's Wrap can.
  explicit ScriptObjectWrap(const Napi::CallbackInfo& info);

  static Napi::Function DefineClass(Napi::Env env, NodeScriptEngine::ClassInfo& info);

 private:
  static Napi::Value CallMethod(const Napi::CallbackInfo& info);
  static Napi::Value CallStatic(const Napi::CallbackInfo& info);
  static Napi::Value AddEventListener(const Napi::CallbackInfo& info);
  static Napi::Value RemoveEventListener(const Napi::CallbackInfo& info);

  std::shared_ptr<kelscripting::ScriptObject> object_;
};

}  // namespace ostriolib::node

#include "ScriptObjectWrap.h"

#include <algorithm>
#include <string>
#include <vector>

namespace ostriolib::node {

using kelscripting::ClassRole;
using kelscripting::MethodKind;

namespace {

// Marks the objects this addon wraps, so a method called on some other native object (another
// addon's) is refused before it is unwrapped as ours.
constexpr napi_type_tag kScriptObjectTag = {0x6f737472696f6c69ULL, 0x622e73637269707aULL};

NodeScriptEngine::ClassInfo& ClassOf(const Napi::CallbackInfo& info) {
  return *static_cast<NodeScriptEngine::ClassInfo*>(info.Data());
}

// addEventListener(name, listener) / removeEventListener(name, listener): the name must be one of
// the class's events (its constants' values), the listener a function.
std::pair<std::string, Napi::Function> ListenerArguments(const Napi::CallbackInfo& info, const char* method) {
  const auto& definition = *ClassOf(info).definition;
  const std::string usage = definition.Name() + "." + method + "(name, listener)";
  if (info.Length() < 2 || !info[0].IsString()) throw Napi::TypeError::New(info.Env(), usage + ": name must be a string");
  if (!info[1].IsFunction()) throw Napi::TypeError::New(info.Env(), usage + ": listener must be a function");
  std::string name = info[0].As<Napi::String>().Utf8Value();
  const auto& constants = definition.Constants();
  if (std::none_of(constants.begin(), constants.end(), [&](const auto& c) { return c.value == name; })) {
    throw Napi::TypeError::New(info.Env(), usage + ": " + definition.Name() + " has no event named \"" + name + "\"");
  }
  return {std::move(name), info[1].As<Napi::Function>()};
}

}  // namespace

ScriptObjectWrap::ScriptObjectWrap(const Napi::CallbackInfo& info) : Napi::ObjectWrap<ScriptObjectWrap>(info) {
  auto& owner = ClassOf(info);
  object_ = owner.engine->TakeConstructing();
  if (!object_) {
    throw Napi::TypeError::New(info.Env(),
                               "Illegal constructor: " + owner.definition->Name() + " objects come from the library");
  }
  info.This().As<Napi::Object>().TypeTag(&kScriptObjectTag);
}

Napi::Function ScriptObjectWrap::DefineClass(Napi::Env env, NodeScriptEngine::ClassInfo& owner) {
  const auto& definition = *owner.definition;
  std::vector<PropertyDescriptor> properties;
  std::vector<NodeScriptEngine::MethodBinding*> instanceMethods;
  for (const auto& method : definition.Methods()) {
    owner.methods.push_back(std::make_unique<NodeScriptEngine::MethodBinding>(
        NodeScriptEngine::MethodBinding{owner.engine, &owner, &method}));
    auto* binding = owner.methods.back().get();
    if (method.kind == MethodKind::Static) {
      properties.push_back(StaticMethod(method.name.c_str(), &ScriptObjectWrap::CallStatic, napi_default_method, binding));
    } else {
      instanceMethods.push_back(binding);
    }
  }
  for (const auto& constant : definition.Constants()) {
    properties.push_back(StaticValue(constant.name.c_str(), Napi::String::New(env, constant.value), napi_enumerable));
  }
  if (definition.Role() == ClassRole::Event) {
    properties.push_back(StaticMethod("addEventListener", &ScriptObjectWrap::AddEventListener, napi_default_method, &owner));
    properties.push_back(
        StaticMethod("removeEventListener", &ScriptObjectWrap::RemoveEventListener, napi_default_method, &owner));
  }
  Napi::Function constructor =
      Napi::ObjectWrap<ScriptObjectWrap>::DefineClass(env, definition.Name().c_str(), properties, &owner);
  // Plain functions on the prototype rather than wrapped instance methods: each checks `this`
  // itself before anything unwraps it.
  Napi::Object prototype = constructor.Get("prototype").As<Napi::Object>();
  for (auto* binding : instanceMethods) {
    const std::string& name = binding->method->name;
    prototype.DefineProperty(Napi::PropertyDescriptor::Value(
        name, Napi::Function::New(env, &ScriptObjectWrap::CallMethod, name, binding), napi_default_method));
  }
  return constructor;
}

Napi::Value ScriptObjectWrap::CallMethod(const Napi::CallbackInfo& info) {
  const auto& binding = *static_cast<NodeScriptEngine::MethodBinding*>(info.Data());
  const std::string& className = binding.owner->definition->Name();
  Napi::Value self = info.This();
  ScriptObjectWrap* wrap = nullptr;
  if (self.IsObject() && self.As<Napi::Object>().CheckTypeTag(&kScriptObjectTag)) {
    wrap = Unwrap(self.As<Napi::Object>());
  }
  if (!wrap || !wrap->object_ || wrap->object_->ClassName() != className) {
    throw Napi::TypeError::New(info.Env(), "Illegal invocation: " + className + "." + binding.method->name +
                                               " called on something other than a " + className + " object");
  }
  return binding.engine->Invoke(info, binding, wrap->object_);
}

Napi::Value ScriptObjectWrap::CallStatic(const Napi::CallbackInfo& info) {
  const auto& binding = *static_cast<NodeScriptEngine::MethodBinding*>(info.Data());
  return binding.engine->Invoke(info, binding, nullptr);
}

Napi::Value ScriptObjectWrap::AddEventListener(const Napi::CallbackInfo& info) {
  auto [name, listener] = ListenerArguments(info, "addEventListener");
  ClassOf(info).engine->AddListener(ClassOf(info), name, listener);
  return info.Env().Undefined();
}

Napi::Value ScriptObjectWrap::RemoveEventListener(const Napi::CallbackInfo& info) {
  auto [name, listener] = ListenerArguments(info, "removeEventListener");
  ClassOf(info).engine->RemoveListener(ClassOf(info), name, listener);
  return info.Env().Undefined();
}

}  // namespace ostriolib::node

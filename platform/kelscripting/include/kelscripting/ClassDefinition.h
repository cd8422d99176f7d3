#pragma once
// ClassDefinition: what a script class shows a script (name, description, namespaces, methods,
// constants, object flags). Flag values are the platform's vocabulary: they are carried through
// exactly as the defining code gives them, and an engine may read them, never rewrite them.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kelscripting/ScriptEngine.h"
#include "kelscripting/ScriptValue.h"

namespace kelscripting {

class ScriptObject;

enum class MethodKind : std::uint8_t {
  Instance,
  Static,  // called on the class; CallContext::self is null
};

// Object: instances come from the object factory. Event: instances are the events the root-event
// queue delivers, and scripts subscribe to the class.
enum class ClassRole : std::uint8_t { Object, Event };

struct CallContext {
  ScriptContextRef context;             // the calling script's context
  std::shared_ptr<ScriptObject> self;   // the object called on; null for a static method
};

using MethodHandler = std::function<ScriptValue(const CallContext& call)>;

struct MethodDefinition {
  std::string name;
  MethodKind kind = MethodKind::Instance;
  ValueType returns = ValueType::Undefined;
  std::string description;
  std::uint32_t flags = 0;
  MethodHandler handler;
};

struct ConstantDefinition {
  std::string name;
  std::string value;
  std::string description;
  std::uint32_t flags = 0;
};

struct NamespaceDefinition {
  std::string name;
  std::uint32_t flags = 0;
};

class ClassDefinition {
 public:
  // Throws kel_exception(kErrorInvalidArgument) for an empty name.
  ClassDefinition(std::string name, std::string description, ClassRole role = ClassRole::Object);

  void AddNamespace(std::string name, std::uint32_t flags);
  // Throws kel_exception(kErrorInvalidArgument) for an empty or repeated name (among methods and
  // constants alike: they share the class's name space) or a method without a handler.
  void AddMethod(MethodDefinition method);
  void AddConstant(ConstantDefinition constant);
  // Adds flags to the object flags already given.
  void AddObjectFlags(std::uint32_t flags) noexcept { objectFlags_ |= flags; }

  const std::string& Name() const noexcept { return name_; }
  const std::string& Description() const noexcept { return description_; }
  ClassRole Role() const noexcept { return role_; }
  std::uint32_t ObjectFlags() const noexcept { return objectFlags_; }
  const std::vector<NamespaceDefinition>& Namespaces() const noexcept { return namespaces_; }
  // In the order they were added.
  const std::vector<MethodDefinition>& Methods() const noexcept { return methods_; }
  const std::vector<ConstantDefinition>& Constants() const noexcept { return constants_; }

 private:
  void RequireFreeName(const std::string& name) const;

  std::string name_;
  std::string description_;
  ClassRole role_;
  std::uint32_t objectFlags_ = 0;
  std::vector<NamespaceDefinition> namespaces_;
  std::vector<MethodDefinition> methods_;
  std::vector<ConstantDefinition> constants_;
};

}  // namespace kelscripting

#pragma once
// The class registry and the object factory.
//
// Libraries register their script classes while they load (ClassRegistrar, a static object); an
// engine reads the registry when it starts and builds its classes from it. The factory makes a
// registered class's objects in a script context.

#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "kelscripting/ClassDefinition.h"
#include "kelscripting/ScriptObject.h"

namespace kelscripting {

// Makes a new, context-less object of the class; null for a class whose objects only events make.
using ObjectConstructor = std::function<std::shared_ptr<ScriptObject>()>;

class ClassRegistry {
 public:
  // False (and nothing registered) when a class of that name is already registered.
  static bool Register(ClassDefinition definition, ObjectConstructor constructor);
  // Every registered class, in registration order.
  static std::vector<std::shared_ptr<const ClassDefinition>> Classes();
  // Null when no class has that name.
  static std::shared_ptr<const ClassDefinition> Find(std::string_view className);
};

class ObjectFactory {
 public:
  // A new object of the registered class, living in context. Throws kel_exception
  // (kErrorInvalidArgument) for a null context, an unknown class or one without a constructor.
  static std::shared_ptr<ScriptObject> Create(const ScriptContextRef& context, std::string_view className);

  // An object made by hand (an event, whose data the class constructor cannot know), attached to
  // the context.
  template <class T, class... Args>
  static std::shared_ptr<T> Make(const ScriptContextRef& context, Args&&... args) {
    auto object = std::make_shared<T>(std::forward<Args>(args)...);
    Attach(*object, context);
    return object;
  }

 private:
  static void Attach(ScriptObject& object, const ScriptContextRef& context);
};

// Registers a class during static initialisation; a refused registration is logged as a warning.
class ClassRegistrar {
 public:
  ClassRegistrar(const std::function<ClassDefinition()>& define, ObjectConstructor constructor);
};

}  // namespace kelscripting

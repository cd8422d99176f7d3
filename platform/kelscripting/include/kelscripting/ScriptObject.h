#pragma once
// ScriptObject: the native half of an object a script holds; ScriptEvent: one delivered event.
//
// A script object belongs to the script context it was made in (the factory attaches it); what
// the object creates for the script (other objects, promises) goes into that same context.

#include <memory>
#include <string>

#include "kelcore/ClassRef.h"
#include "kelscripting/ScriptEngine.h"

namespace kelscripting {

class ScriptObject : public virtual kelcore::classref::SharedAsVirtualBase {
 public:
  explicit ScriptObject(std::string className);
  ~ScriptObject() override;
  ScriptObject(const ScriptObject&) = delete;
  ScriptObject& operator=(const ScriptObject&) = delete;

  const std::string& ClassName() const noexcept { return className_; }
  // Null for an object that no factory made.
  const ScriptContextRef& Context() const noexcept { return context_; }

 private:
  friend class ObjectFactory;
  const std::string className_;
  ScriptContextRef context_;  // set once by the factory, before the object is handed out
};

class ScriptEvent : public ScriptObject {
 public:
  ScriptEvent(std::string className, std::string eventName);
  const std::string& EventName() const noexcept { return eventName_; }

 private:
  const std::string eventName_;
};

}  // namespace kelscripting

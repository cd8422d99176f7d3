#include "OstrioAuthEventObject.h"

#include <utility>

#include "kelscripting/ObjectFactory.h"

namespace ostriolib {

OstrioAuthEventObject::OstrioAuthEventObject(std::string eventName)
    : kelscripting::ScriptEvent(std::string(kClassName), std::move(eventName)) {}

kelscripting::ClassDefinition OstrioAuthEventObject::Definition() {
  // The flag values are kelscripting's vocabulary, passed on as they are.
  kelscripting::ClassDefinition definition(std::string(kClassName), "Ostriolib Authentication Events",
                                           kelscripting::ClassRole::Event);
  definition.AddObjectFlags(512);
  definition.AddNamespace("Ostriolib", 0);
  definition.AddConstant({"SIGNED_IN", std::string(kOstrioAuthEventSignedIn), "Sent when a user is signed in.", 1});
  definition.AddConstant({"SIGNED_OUT", std::string(kOstrioAuthEventSignedOut), "Sent when a user is signed out.", 1});
  return definition;
}

bool OstrioAuthEventObject::QueueEvent(std::string_view eventName) {
  std::string name(eventName);
  return kelscripting::QueueRootEvent(std::string(kClassName), name,
                                      [name](const kelscripting::ScriptContextRef& context) {
                                        return kelscripting::ObjectFactory::Make<OstrioAuthEventObject>(context, name);
                                      });
}

namespace {
// Event objects come only from delivered events, so the class has no constructor of its own.
const kelscripting::ClassRegistrar sOstrioAuthEventObjectClass(&OstrioAuthEventObject::Definition, nullptr);
}  // namespace

}  // namespace ostriolib

#include "kelscripting/ScriptObject.h"

#include <utility>

namespace kelscripting {

ScriptObject::ScriptObject(std::string className) : className_(std::move(className)) {}
ScriptObject::~ScriptObject() = default;

ScriptEvent::ScriptEvent(std::string className, std::string eventName)
    : ScriptObject(std::move(className)), eventName_(std::move(eventName)) {}

}  // namespace kelscripting

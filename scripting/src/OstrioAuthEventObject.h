#pragma once
// OstrioAuthEventObject: the script event class through which scripts hear of sign-in and
// sign-out. The client's signed-in-changed message becomes one of its two events (the listener
// lives with the client script object, OstrioClientObject::SetupOstrioAuth).

#include <string>
#include <string_view>

#include "kelscripting/ClassDefinition.h"
#include "kelscripting/ScriptObject.h"

namespace ostriolib {

// The event names, shared by the class's constants and the code that queues the events, so a
// script compares what it receives with SIGNED_IN and SIGNED_OUT.
inline constexpr std::string_view kOstrioAuthEventSignedIn = "SignedIn";
inline constexpr std::string_view kOstrioAuthEventSignedOut = "SignedOut";

class OstrioAuthEventObject : public kelscripting::ScriptEvent {
 public:
  static constexpr std::string_view kClassName = "OstrioAuthEventObject";

  explicit OstrioAuthEventObject(std::string eventName);

  static kelscripting::ClassDefinition Definition();
  // Queues the event at the engine's root, the event object made when the engine delivers it.
  // From any thread; whether the engine took it.
  static bool QueueEvent(std::string_view eventName);
};

}  // namespace ostriolib

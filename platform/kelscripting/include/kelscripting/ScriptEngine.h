#pragma once
// The engine's side of the vocabulary: what an engine adapter implements and installs.
//
// Threads: native code may settle promises and queue events from any thread; the engine moves
// each onto its scripting thread. Script calls into native methods come on that thread.

#include <functional>
#include <memory>
#include <string>

#include "kelcore/ResultCodes.h"
#include "kelscripting/ScriptValue.h"

namespace kelscripting {

class ScriptEvent;

// The engine's half of one promise. Called at most once in all (NativePromise sees to that), from
// any thread.
class IPromiseBackend {
 public:
  virtual ~IPromiseBackend() = default;
  virtual void Resolve(ScriptValue value) = 0;
  virtual void Reject(ScriptValue reason) = 0;
  // Rejects with the engine's error object carrying the message (UTF-8) and the result code.
  virtual void RejectWithError(std::string message, kelcore::Result code) = 0;
};

// A script context: where objects and promises made for a script live.
class IScriptContext {
 public:
  virtual ~IScriptContext() = default;
  // On the scripting thread only; throws kel_exception elsewhere or once the context is closed.
  virtual std::shared_ptr<IPromiseBackend> CreatePromise() = 0;
};
using ScriptContextRef = std::shared_ptr<IScriptContext>;

// Makes the event object when the engine delivers the event, on the scripting thread, in the
// context the engine delivers it to.
using EventObjectFactory = std::function<std::shared_ptr<ScriptEvent>(const ScriptContextRef& context)>;

struct RootEvent {
  std::string className;  // the event class listeners subscribe to
  std::string eventName;
  EventObjectFactory factory;
};

class IScriptEngine {
 public:
  virtual ~IScriptEngine() = default;
  // From any thread. Whether the engine took the event for delivery.
  virtual bool QueueRootEvent(RootEvent event) = 0;
};

// One engine per process; null uninstalls. The previous engine is released outside the lock.
void InstallScriptEngine(std::shared_ptr<IScriptEngine> engine);
std::shared_ptr<IScriptEngine> GetScriptEngine();

// Queues an event at the engine's root; false when no engine is installed or it refused.
bool QueueRootEvent(std::string className, std::string eventName, EventObjectFactory factory);

}  // namespace kelscripting

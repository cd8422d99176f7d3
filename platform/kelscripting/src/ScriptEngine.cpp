#include "kelscripting/ScriptEngine.h"

#include <mutex>
#include <utility>

namespace kelscripting {
namespace {

struct EngineSlot {
  std::mutex mutex;
  std::shared_ptr<IScriptEngine> engine;
};

EngineSlot& Slot() {
  // Never destroyed: events may still be queued from other threads while the process exits.
  static auto* slot = new EngineSlot;
  return *slot;
}

}  // namespace

void InstallScriptEngine(std::shared_ptr<IScriptEngine> engine) {
  auto& slot = Slot();
  std::shared_ptr<IScriptEngine> previous;
  std::lock_guard lock(slot.mutex);
  previous = std::exchange(slot.engine, std::move(engine));
  // previous is destroyed after the lock is released (declared before the guard).
}

std::shared_ptr<IScriptEngine> GetScriptEngine() {
  auto& slot = Slot();
  std::lock_guard lock(slot.mutex);
  return slot.engine;
}

bool QueueRootEvent(std::string className, std::string eventName, EventObjectFactory factory) {
  auto engine = GetScriptEngine();
  if (!engine || !factory) return false;
  return engine->QueueRootEvent(RootEvent{std::move(className), std::move(eventName), std::move(factory)});
}

}  // namespace kelscripting

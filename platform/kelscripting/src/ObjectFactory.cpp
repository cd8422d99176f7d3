#include "kelscripting/ObjectFactory.h"

#include <mutex>
#include <string>
#include <utility>

#include "kelcore/KelException.h"
#include "kelcore/Logging.h"

namespace kelscripting {
namespace {

struct Entry {
  std::shared_ptr<const ClassDefinition> definition;
  ObjectConstructor constructor;
};

struct Registry {
  std::mutex mutex;
  std::vector<Entry> entries;

  // Under the mutex.
  const Entry* Find(std::string_view name) const {
    for (const auto& entry : entries) {
      if (entry.definition->Name() == name) return &entry;
    }
    return nullptr;
  }
};

Registry& TheRegistry() {
  // Never destroyed: libraries register from their static initialisers, in any load order.
  static auto* registry = new Registry;
  return *registry;
}

}  // namespace

bool ClassRegistry::Register(ClassDefinition definition, ObjectConstructor constructor) {
  auto& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  if (registry.Find(definition.Name())) return false;
  registry.entries.push_back(
      Entry{std::make_shared<const ClassDefinition>(std::move(definition)), std::move(constructor)});
  return true;
}

std::vector<std::shared_ptr<const ClassDefinition>> ClassRegistry::Classes() {
  auto& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  std::vector<std::shared_ptr<const ClassDefinition>> classes;
  classes.reserve(registry.entries.size());
  for (const auto& entry : registry.entries) classes.push_back(entry.definition);
  return classes;
}

std::shared_ptr<const ClassDefinition> ClassRegistry::Find(std::string_view className) {
  auto& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  const Entry* entry = registry.Find(className);
  return entry ? entry->definition : nullptr;
}

std::shared_ptr<ScriptObject> ObjectFactory::Create(const ScriptContextRef& context, std::string_view className) {
  KEL_THROW_IF(!context, kelcore::kErrorInvalidArgument, "A script object needs a script context");
  ObjectConstructor constructor;
  {
    auto& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    const Entry* entry = registry.Find(className);
    KEL_THROW_IF(!entry, kelcore::kErrorInvalidArgument, "No script class named " + std::string(className));
    constructor = entry->constructor;
  }
  KEL_THROW_IF(!constructor, kelcore::kErrorInvalidArgument,
               "Script class " + std::string(className) + " makes no objects of its own");
  // The constructor runs outside the lock: it may look classes up itself.
  auto object = constructor();
  KEL_THROW_IF(!object, kelcore::kErrorFailed, "Script class " + std::string(className) + " made no object");
  Attach(*object, context);
  return object;
}

void ObjectFactory::Attach(ScriptObject& object, const ScriptContextRef& context) { object.context_ = context; }

ClassRegistrar::ClassRegistrar(const std::function<ClassDefinition()>& define, ObjectConstructor constructor) {
  std::string name;
  try {
    ClassDefinition definition = define();
    name = definition.Name();
    if (ClassRegistry::Register(std::move(definition), std::move(constructor))) return;
    kelcore::logging::LogWarning("kelscripting", "A script class of this name is already registered", {{"class", name}});
  } catch (...) {
    kelcore::logging::LogWarning("kelscripting", "A script class could not be defined",
                                 {{"class", name}, {"error", kelcore::ExtractMessageFromException(std::current_exception())}});
  }
}

}  // namespace kelscripting

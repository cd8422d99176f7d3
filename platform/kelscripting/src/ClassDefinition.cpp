#include "kelscripting/ClassDefinition.h"

#include <algorithm>
#include <utility>

#include "kelcore/KelException.h"

namespace kelscripting {

ClassDefinition::ClassDefinition(std::string name, std::string description, ClassRole role)
    : name_(std::move(name)), description_(std::move(description)), role_(role) {
  KEL_THROW_IF(name_.empty(), kelcore::kErrorInvalidArgument, "A script class needs a name");
}

void ClassDefinition::AddNamespace(std::string name, std::uint32_t flags) {
  KEL_THROW_IF(name.empty(), kelcore::kErrorInvalidArgument, "A script namespace needs a name");
  namespaces_.push_back(NamespaceDefinition{std::move(name), flags});
}

void ClassDefinition::RequireFreeName(const std::string& name) const {
  KEL_THROW_IF(name.empty(), kelcore::kErrorInvalidArgument, "A script member needs a name");
  const bool taken =
      std::any_of(methods_.begin(), methods_.end(), [&](const auto& m) { return m.name == name; }) ||
      std::any_of(constants_.begin(), constants_.end(), [&](const auto& c) { return c.name == name; });
  KEL_THROW_IF(taken, kelcore::kErrorInvalidArgument, name_ + " already has a member named " + name);
}

void ClassDefinition::AddMethod(MethodDefinition method) {
  RequireFreeName(method.name);
  KEL_THROW_IF(!method.handler, kelcore::kErrorInvalidArgument, name_ + "." + method.name + " has no handler");
  methods_.push_back(std::move(method));
}

void ClassDefinition::AddConstant(ConstantDefinition constant) {
  RequireFreeName(constant.name);
  constants_.push_back(std::move(constant));
}

}  // namespace kelscripting

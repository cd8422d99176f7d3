#include "kelscripting/ScriptValue.h"

#include "kelcore/KelException.h"

namespace kelscripting {
namespace {

template <class T>
const T& Held(const std::variant<std::monostate, bool, double, std::string, std::shared_ptr<ScriptObject>,
                                 std::shared_ptr<NativePromise>>& value,
              const char* expected) {
  const T* held = std::get_if<T>(&value);
  if (!held) throw kelcore::kel_exception(kelcore::kErrorInvalidArgument, std::string("Script value is not ") + expected);
  return *held;
}

}  // namespace

bool ScriptValue::AsBoolean() const { return Held<bool>(value_, "a boolean"); }
double ScriptValue::AsNumber() const { return Held<double>(value_, "a number"); }
const std::string& ScriptValue::AsString() const { return Held<std::string>(value_, "a string"); }
const std::shared_ptr<ScriptObject>& ScriptValue::AsObject() const {
  return Held<std::shared_ptr<ScriptObject>>(value_, "an object");
}
const std::shared_ptr<NativePromise>& ScriptValue::AsPromise() const {
  return Held<std::shared_ptr<NativePromise>>(value_, "a promise");
}

}  // namespace kelscripting

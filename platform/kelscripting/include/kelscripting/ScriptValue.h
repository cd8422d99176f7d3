#pragma once
// ScriptValue: a value crossing between native code and a script engine, and the value types a
// method definition names as its return type.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

namespace kelscripting {

class ScriptObject;
class NativePromise;

enum class ValueType : std::uint8_t {
  Undefined,
  Boolean,
  Number,
  String,  // UTF-8
  Object,  // a ScriptObject
  Promise, // a NativePromise
};

class ScriptValue {
 public:
  ScriptValue() = default;
  ScriptValue(bool value) : value_(value) {}
  ScriptValue(double value) : value_(value) {}
  ScriptValue(std::string value) : value_(std::move(value)) {}
  // Without it a string literal would pick the bool constructor.
  ScriptValue(const char* value) : value_(std::string(value ? value : "")) {}
  ScriptValue(std::shared_ptr<ScriptObject> object) : value_(std::move(object)) {}
  ScriptValue(std::shared_ptr<NativePromise> promise) : value_(std::move(promise)) {}

  ValueType Type() const noexcept { return static_cast<ValueType>(value_.index()); }

  // Each throws kel_exception(kErrorInvalidArgument) when the value holds another type.
  bool AsBoolean() const;
  double AsNumber() const;
  const std::string& AsString() const;
  const std::shared_ptr<ScriptObject>& AsObject() const;
  const std::shared_ptr<NativePromise>& AsPromise() const;

 private:
  // In ValueType's order.
  std::variant<std::monostate, bool, double, std::string, std::shared_ptr<ScriptObject>, std::shared_ptr<NativePromise>>
      value_;
};

}  // namespace kelscripting

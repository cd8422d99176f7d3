#pragma once
// Class references: reference-counted objects that answer interface lookups by name.
//
// Ownership is ordinary shared ownership; an object derived from SharedAsVirtualBase can hand
// out shared and weak references to itself from any member. QueryMap maps a fully qualified
// interface name to the matching sub-object pointer.

#include <atomic>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kelcore/ImmutableString.h"
#include "kelcore/KelException.h"

namespace kelcore {

namespace debug {
// The fully qualified name of T ("ostriolib::IOstrioService"), computed from the compiler.
template <class T>
constexpr std::string_view GetTypeName() {
  std::string_view p = __PRETTY_FUNCTION__;
  // GCC: "... [with T = ns::Type; std::string_view = ...]"; clang: "... [T = ns::Type]"
  auto start = p.find("T = ") + 4;
  auto end = p.find_first_of(";]", start);
  return p.substr(start, end - start);
}
}  // namespace debug

namespace classref {

class SharedAsVirtualBase : public std::enable_shared_from_this<SharedAsVirtualBase> {
 public:
  virtual ~SharedAsVirtualBase() = default;

  template <class T>
  std::shared_ptr<T> SharedFromThisAs() {
    return std::shared_ptr<T>(shared_from_this(), dynamic_cast<T*>(this));
  }
  template <class T>
  std::weak_ptr<T> WeakFromThisAs() {
    auto self = weak_from_this().lock();
    if (!self) return {};
    return std::shared_ptr<T>(self, dynamic_cast<T*>(this));
  }
};

class UnknownBase : public virtual SharedAsVirtualBase {
 public:
  ~UnknownBase() override = default;
  virtual const ImmutableString& GetUnknownTypeName() const = 0;
  // The sub-object answering to the interface name, or null.
  void* QueryInterface(std::string_view interfaceName) { return QueryMap(interfaceName); }

 protected:
  virtual void* QueryMap(std::string_view interfaceName) = 0;
};

class Unknown : public virtual UnknownBase {};

template <class T>
class InterfaceRef {
 public:
  InterfaceRef() = default;
  InterfaceRef(std::nullptr_t) {}
  explicit InterfaceRef(std::shared_ptr<T> object) : object_(std::move(object)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  InterfaceRef(const InterfaceRef<U>& other) : object_(other.Shared()) {}

  T* get() const noexcept { return object_.get(); }
  T* operator->() const noexcept { return object_.get(); }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return static_cast<bool>(object_); }
  const std::shared_ptr<T>& Shared() const noexcept { return object_; }
  std::weak_ptr<T> Weak() const noexcept { return object_; }
  void Reset() noexcept { object_.reset(); }

  // Looks the object up under U's fully qualified name; empty when it does not answer to it.
  template <class U>
  InterfaceRef<U> Query() const {
    if (!object_) return {};
    auto* unknown = dynamic_cast<UnknownBase*>(object_.get());
    if (!unknown) return {};
    void* found = unknown->QueryInterface(debug::GetTypeName<U>());
    if (!found) return {};
    return InterfaceRef<U>(std::shared_ptr<U>(object_, static_cast<U*>(found)));
  }

  friend bool operator==(const InterfaceRef& a, const InterfaceRef& b) noexcept { return a.object_ == b.object_; }

 private:
  std::shared_ptr<T> object_;
};

// The registration every class-registered object needs: its own name, and the sub-object that
// answers to each interface name it can be looked up under (itself and each of Interfaces).
template <class Self, class... Interfaces>
struct ClassRegistration {
  static const ImmutableString& TypeName() {
    static const ImmutableString name(debug::GetTypeName<Self>());
    return name;
  }
  // `object` is Self, or a class template's CRTP base of Self.
  template <class Object>
  static void* Find(Object* object, std::string_view interfaceName) {
    Self* self = static_cast<Self*>(object);
    if (interfaceName == debug::GetTypeName<Self>()) return self;
    void* found = nullptr;
    ((found = found != nullptr || interfaceName != debug::GetTypeName<Interfaces>()
                  ? found
                  : static_cast<void*>(static_cast<Interfaces*>(self))),
     ...);
    return found;
  }
};

// Keeps count of live class-registered objects, so tests can prove nothing leaks.
class ClassWatcher {
 public:
  static void AddObject(const std::shared_ptr<UnknownBase>& object);
  static std::size_t LiveObjectCount();
};

// Allocates T and attaches the shared reference, so SharedAsVirtualBase works at once.
template <class T, class... Args>
InterfaceRef<T> AllocateClassInstance(Args&&... args) {
  return InterfaceRef<T>(std::make_shared<T>(std::forward<Args>(args)...));
}

}  // namespace classref
}  // namespace kelcore

// Declares GetUnknownTypeName and QueryMap for Self, answering to Self and to each listed
// interface. Put it at the top of the class body; it leaves the access at public.
#define KEL_CLASS_REGISTRATION(Self, ...)                                                          \
 public:                                                                                           \
  const ::kelcore::ImmutableString& GetUnknownTypeName() const override {                          \
    return ::kelcore::classref::ClassRegistration<Self __VA_OPT__(, ) __VA_ARGS__>::TypeName();                \
  }                                                                                                \
                                                                                                   \
 protected:                                                                                        \
  void* QueryMap(std::string_view interfaceName) override {                                        \
    return ::kelcore::classref::ClassRegistration<Self __VA_OPT__(, ) __VA_ARGS__>::Find(this, interfaceName); \
  }                                                                                                \
                                                                                                   \
 public:

#pragma once
// Dictionary / DictionaryValue: a JSON-like tree with string keys.
//
// Two representations sit behind one API:
//  - built values (the variables of a query, a request body) own their nodes; objects and arrays
//    are shared copy-on-write, so copying a Dictionary is a reference-count bump and handing a
//    dictionary into another shares its storage;
//  - parsed values are views into one immutable parsed document (a flat tape plus one string
//    buffer, built in a single pass over the JSON text), so parsing allocates a handful of
//    buffers regardless of the number of nodes, and a copy of any sub-tree is a view.
// Writing into a parsed dictionary first turns its top level into built entries whose values
// stay views. Lookups never throw: a missing key or another kind gives the default.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kelcore/ImmutableString.h"
#include "kelcore/Strings.h"

namespace kelcore::utility {

class Dictionary;
class DictionaryValue;

namespace detail {
struct ParsedDocument;  // the parsed tape; defined in Dictionary.cpp
struct ObjectEntries;   // built object storage
struct ArrayElements;   // built array storage
}  // namespace detail

class DictionaryValue {
 public:
  enum class Kind : std::uint8_t { Null, Boolean, Integer, UnsignedInteger, Double, String, Array, Object };

  DictionaryValue() noexcept;  // null
  DictionaryValue(std::nullptr_t) noexcept : DictionaryValue() {}
  DictionaryValue(bool value) noexcept;
  DictionaryValue(int value) noexcept : DictionaryValue(static_cast<long long>(value)) {}
  DictionaryValue(long value) noexcept : DictionaryValue(static_cast<long long>(value)) {}
  DictionaryValue(long long value) noexcept;
  DictionaryValue(unsigned value) noexcept : DictionaryValue(static_cast<long long>(value)) {}
  DictionaryValue(unsigned long value) noexcept;
  DictionaryValue(unsigned long long value) noexcept;
  DictionaryValue(double value) noexcept;
  DictionaryValue(std::string_view text);
  DictionaryValue(const char* text) : DictionaryValue(std::string_view(text ? text : "")) {}
  DictionaryValue(const std::string& text) : DictionaryValue(std::string_view(text)) {}
  DictionaryValue(const U8Str& text) : DictionaryValue(::kelcore::AsStringView(text)) {}
  DictionaryValue(const ImmutableString& text) : DictionaryValue(text.View()) {}
  DictionaryValue(const Dictionary& object);
  DictionaryValue(std::vector<DictionaryValue> array);

  DictionaryValue(const DictionaryValue&) = default;
  DictionaryValue(DictionaryValue&&) noexcept = default;
  DictionaryValue& operator=(const DictionaryValue&) = default;
  DictionaryValue& operator=(DictionaryValue&&) noexcept = default;
  ~DictionaryValue();

  Kind GetKind() const noexcept;
  bool IsNull() const noexcept { return GetKind() == Kind::Null; }
  bool IsBool() const noexcept { return GetKind() == Kind::Boolean; }
  // Either JSON integer kind (signed or unsigned 64-bit).
  bool IsInteger() const noexcept { return GetKind() == Kind::Integer || GetKind() == Kind::UnsignedInteger; }
  bool IsNumber() const noexcept { return IsInteger() || GetKind() == Kind::Double; }
  bool IsString() const noexcept { return GetKind() == Kind::String; }
  bool IsArray() const noexcept { return GetKind() == Kind::Array; }
  bool IsObject() const noexcept { return GetKind() == Kind::Object; }

  // Typed reads; another kind gives the default.
  bool AsBool(bool fallback = false) const noexcept;
  // Integer kinds only (an unsigned value keeps its low 64 bits).
  std::int64_t AsInt64(std::int64_t fallback = 0) const noexcept;
  std::uint64_t AsUInt64(std::uint64_t fallback = 0) const noexcept;
  // Any number kind.
  double AsDouble(double fallback = 0.0) const noexcept;
  // The text; the view stays valid while this value (or a copy of it) lives.
  std::string_view AsStringView() const noexcept;
  std::string AsString() const { return std::string(AsStringView()); }
  ImmutableString AsImmutableString() const { return ImmutableString(AsStringView()); }
  // Not an object: an empty dictionary.
  Dictionary AsDictionary() const;
  // Not an array: an empty vector. Elements of a parsed array are views (cheap).
  std::vector<DictionaryValue> AsArray() const;
  // Number of elements of an array, members of an object, 0 otherwise.
  std::size_t Size() const noexcept;

  // Deep, kind-exact comparison (an Integer 1 differs from a Double 1.0).
  friend bool operator==(const DictionaryValue& a, const DictionaryValue& b);

 private:
  friend class Dictionary;
  friend struct detail::ParsedDocument;
  friend std::optional<DictionaryValue> JSONParseToDictionaryValue(const void*, std::size_t, std::string*);
  enum class Rep : std::uint8_t { Scalar, Text, Array, Object, View };
  DictionaryValue(std::shared_ptr<const detail::ParsedDocument> document, std::uint32_t index) noexcept;

  Rep rep_ = Rep::Scalar;
  Kind kind_ = Kind::Null;
  union {
    bool boolean_;
    std::int64_t integer_;
    std::uint64_t unsigned_;
    double double_;
    std::uint32_t index_;  // tape index of a view
  };
  // Text: std::string; Array: detail::ArrayElements; Object: detail::ObjectEntries; View: the document.
  std::shared_ptr<const void> storage_;
};

class Dictionary {
 public:
  Dictionary() noexcept;
  Dictionary(std::initializer_list<std::pair<ImmutableString, DictionaryValue>> entries);
  Dictionary(const Dictionary&) = default;
  Dictionary(Dictionary&&) noexcept = default;
  Dictionary& operator=(const Dictionary&) = default;
  Dictionary& operator=(Dictionary&&) noexcept = default;
  ~Dictionary();

  bool empty() const noexcept { return size() == 0; }
  std::size_t size() const noexcept;
  bool Contains(std::string_view key) const noexcept;

  // The value under key, if any. Keys are unique; the first of duplicated keys in a parsed
  // document is the one found.
  std::optional<DictionaryValue> Get(std::string_view key) const;
  // Typed lookups that never throw: missing key or other kind gives the fallback.
  std::string GetString(std::string_view key, std::string_view fallback = {}) const;
  ImmutableString GetImmutableString(std::string_view key) const;
  std::int64_t GetInteger(std::string_view key, std::int64_t fallback = 0) const;
  double GetDouble(std::string_view key, double fallback = 0.0) const;
  bool GetBool(std::string_view key, bool fallback = false) const;
  Dictionary GetDictionary(std::string_view key) const;
  std::vector<DictionaryValue> GetArray(std::string_view key) const;

  // Replaces an existing key in place or appends; insertion order is kept (and written).
  void Set(const ImmutableString& key, DictionaryValue value);
  bool Remove(std::string_view key);

  // Members in document / insertion order.
  std::vector<std::pair<ImmutableString, DictionaryValue>> Entries() const;
  template <class Visitor>  // Visitor(std::string_view key, const DictionaryValue& value)
  void ForEach(Visitor&& visit) const {
    for (const auto& [key, value] : Entries()) visit(key.View(), value);
  }

  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  friend class DictionaryValue;
  void MakeOwned();
  std::shared_ptr<detail::ObjectEntries> owned_;          // built storage (may be null when empty)
  std::shared_ptr<const detail::ParsedDocument> view_;    // or a parsed object
  std::uint32_t index_ = 0;
};

// Parses UTF-8 JSON text. Malformed text (including trailing garbage and invalid UTF-8) gives
// nullopt and, when asked, a one-line reason. Integers keep their JSON kind: signed 64-bit, or
// unsigned 64-bit above INT64_MAX; numbers with a fraction or exponent, or beyond 64 bits, are doubles.
std::optional<DictionaryValue> JSONParseToDictionaryValue(const void* data, std::size_t length,
                                                          std::string* error = nullptr);

// Writes compact JSON: valid, escaped UTF-8 (invalid bytes become U+FFFD), integers without
// exponent, doubles in shortest round-trip form (NaN and infinities as null).
std::string JSONWrite(const DictionaryValue& value);
std::string JSONWrite(const Dictionary& object);
inline U8Str JSONWriteU8(const Dictionary& object) { return ToU8Str(JSONWrite(object)); }

}  // namespace kelcore::utility

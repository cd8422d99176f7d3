#pragma once
// The parsed document behind a Dictionary view: one flat tape of slots and one string buffer
// (doc/decisions/002), and the built storage of objects and arrays. Shared by the tree, the
// parsers and the writer.

#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "kelcore/Dictionary.h"

namespace kelcore::utility {

using Kind = DictionaryValue::Kind;

namespace detail {

// One node of a parsed document. Objects are laid out as [object][key][value...][key][value...],
// arrays as [array][value...]; a container's payload is the index just past its last
// descendant, so a lookup steps over whole sub-trees without visiting them.
struct Slot {
  Kind kind;
  std::uint8_t flags;
  std::uint16_t reserved;
  std::uint32_t count;    // string length, or the visible members / elements of a container
  std::uint64_t payload;  // scalar bits, offset into the string buffer, or the index past a container
};
static_assert(sizeof(Slot) == 16);

// A later duplicate of a key in the same object. It stays on the tape (so indices stay put) but
// lookups, iteration and the writer pass over it: the first of duplicated keys wins.
constexpr std::uint8_t kShadowed = 1;

struct ParsedDocument {
  std::unique_ptr<Slot[]> tape;
  std::unique_ptr<char[]> strings;

  static bool IsContainer(Kind kind) noexcept { return kind == Kind::Array || kind == Kind::Object; }
  std::uint32_t Next(std::uint32_t i) const noexcept {
    const Slot& slot = tape[i];
    return IsContainer(slot.kind) ? static_cast<std::uint32_t>(slot.payload) : i + 1;
  }
  std::string_view Text(std::uint32_t i) const noexcept {
    const Slot& slot = tape[i];
    return std::string_view(strings.get() + slot.payload, slot.count);
  }
  // Calls visit(keyIndex, valueIndex) for each visible member of the object at `object`, until
  // visit returns false.
  template <class Visit>
  void ForEachMember(std::uint32_t object, Visit&& visit) const {
    const std::uint32_t end = Next(object);
    for (std::uint32_t key = object + 1; key < end;) {
      const std::uint32_t value = key + 1;
      const std::uint32_t next = Next(value);
      if (!(tape[key].flags & kShadowed) && !visit(key, value)) return;
      key = next;
    }
  }
  template <class Visit>
  void ForEachElement(std::uint32_t array, Visit&& visit) const {
    const std::uint32_t end = Next(array);
    for (std::uint32_t element = array + 1; element < end; element = Next(element)) {
      if (!visit(element)) return;
    }
  }
  // The representation behind a value, for the writer: a view's document (and its index), or
  // the built storage of an object or array.
  static const ParsedDocument* ViewOf(const DictionaryValue& value, std::uint32_t& index) noexcept {
    if (value.rep_ != DictionaryValue::Rep::View) return nullptr;
    index = value.index_;
    return static_cast<const ParsedDocument*>(value.storage_.get());
  }
  static const ObjectEntries* EntriesOf(const DictionaryValue& value) noexcept {
    return value.rep_ == DictionaryValue::Rep::Object ? static_cast<const ObjectEntries*>(value.storage_.get()) : nullptr;
  }
  static const ArrayElements* ElementsOf(const DictionaryValue& value) noexcept {
    return value.rep_ == DictionaryValue::Rep::Array ? static_cast<const ArrayElements*>(value.storage_.get()) : nullptr;
  }
  // The value index of `key` in the object, 0 when absent (0 is always the root, never a member).
  std::uint32_t Find(std::uint32_t object, std::string_view key) const noexcept {
    std::uint32_t found = 0;
    ForEachMember(object, [&](std::uint32_t k, std::uint32_t v) {
      if (Text(k) == key) found = v;
      return found == 0;
    });
    return found;
  }
};

struct ObjectEntries {
  std::vector<std::pair<ImmutableString, DictionaryValue>> entries;
};

struct ArrayElements {
  std::vector<DictionaryValue> elements;
};

}  // namespace detail

using detail::ParsedDocument;
using detail::Slot;

}  // namespace kelcore::utility

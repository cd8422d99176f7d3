#pragma once
// The parsers' shared machinery: the duplicate-key check, the per-thread scratch and the buffers
// a document is built in. Used by the DOM fast path and the On-Demand path alike.

#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "DictionaryDocument.h"

namespace kelcore::utility::tape {


// simdjson's DOM stage accepts 1023 levels around a value (1024 only when the innermost is
// empty); the On-Demand path stops at 1023 so nothing it accepts is refused when read again.
constexpr std::size_t kMaxDepth = 1023;

// Spare bytes after the string buffer: short strings are copied in whole 16-byte blocks and key
// hashes read 8 bytes at a time, both running past the end of the text itself.
constexpr std::size_t kStringSlack = 64;

inline std::uint64_t Load64(const char* p) noexcept {
  std::uint64_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

// A hash of a key's length and first and last 8 bytes: enough to tell the keys of one object
// apart almost always, for a couple of loads and multiplies. Reads 8 bytes even of shorter keys.
inline std::uint64_t KeyHash(const char* text, std::uint32_t length) noexcept {
  std::uint64_t head = 0;
  std::uint64_t tail = 0;
  if (length >= 8) {
    head = Load64(text);
    tail = Load64(text + length - 8);
  } else if (length) {
    head = Load64(text) & (~std::uint64_t{0} >> (64 - 8 * length));
  }
  return (head * 0x9E3779B97F4A7C15ull) ^ ((tail ^ length) * 0xC2B2AE3D27D4EB4Full);
}

// Copies text from simdjson's DOM string buffer into ours; both have slack past their last
// string (simdjson's is padded by SIMDJSON_PADDING) for the overshoot of short copies.
inline void CopyText(char* destination, const void* source, std::size_t length) noexcept {
  if (length <= 32) {
    std::memcpy(destination, source, 16);
    std::memcpy(destination + 16, static_cast<const char*>(source) + 16, 16);
  } else {
    std::memcpy(destination, source, length);
  }
}

inline std::uint32_t NextSlot(const Slot* slots, std::uint32_t i) noexcept {
  return ParsedDocument::IsContainer(slots[i].kind) ? static_cast<std::uint32_t>(slots[i].payload) : i + 1;
}

inline bool SameText(const Slot* slots, const char* strings, std::uint32_t a, std::uint32_t b) noexcept {
  return slots[a].count == slots[b].count &&
         std::memcmp(strings + slots[a].payload, strings + slots[b].payload, slots[a].count) == 0;
}

// Duplicate keys are caught as keys are added: each key sets one bit of a 128-bit filter, and
// only a key whose bit is already set is compared with the earlier keys, so objects of distinct
// keys (all of them, in practice) cost a few instructions per key. Past kIncrementalKeys the
// filter is too full to help and the object is checked in full, sorted, when it closes.
constexpr std::uint32_t kIncrementalKeys = 64;

// True when the key at `key` repeats an earlier visible key of the object at `object`.
inline bool RepeatsEarlierKey(const Slot* slots, const char* strings, std::uint32_t object, std::uint32_t key) noexcept {
  for (std::uint32_t earlier = object + 1; earlier < key; earlier = NextSlot(slots, earlier + 1)) {
    if (!(slots[earlier].flags & detail::kShadowed) && SameText(slots, strings, earlier, key)) return true;
  }
  return false;
}

// Checks an object of more than kIncrementalKeys keys in full when it closes: sorting by (text,
// position) puts each first occurrence ahead of its repeats, in O(n log n) whatever the keys look
// like. Returns how many keys it newly marked.
inline std::uint32_t ShadowRepeatedKeys(Slot* slots, const char* strings, std::uint32_t object, std::uint32_t end,
                                 std::vector<std::pair<std::string_view, std::uint32_t>>& sorted) {
  sorted.clear();
  for (std::uint32_t key = object + 1; key < end; key = NextSlot(slots, key + 1)) {
    sorted.emplace_back(std::string_view(strings + slots[key].payload, slots[key].count), key);
  }
  std::sort(sorted.begin(), sorted.end());
  std::uint32_t shadowed = 0;
  for (std::size_t i = 1; i < sorted.size(); ++i) {
    Slot& slot = slots[sorted[i].second];
    if (sorted[i].first == sorted[i - 1].first && !(slot.flags & detail::kShadowed)) {
      slot.flags |= detail::kShadowed;
      ++shadowed;
    }
  }
  return shadowed;
}

// The duplicate-key check of one open object. Plain fields, copied one by one: the parse loops
// keep them in registers.
struct KeyCheck {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  std::uint32_t keys = 0;
  std::uint32_t shadowed = 0;

  // `key` (a slot already written, hashed as `hash`) is the newest key of the object at `object`.
  void Add(Slot* slots, const char* strings, std::uint32_t object, std::uint32_t key, std::uint64_t hash) noexcept {
    if (++keys > kIncrementalKeys) return;
    const std::uint64_t bit = std::uint64_t{1} << (hash >> 58);
    std::uint64_t& word = (hash >> 57) & 1 ? high : low;
    if (!(word & bit)) {
      word |= bit;
    } else if (RepeatsEarlierKey(slots, strings, object, key)) {
      slots[key].flags |= detail::kShadowed;
      ++shadowed;
    }
  }

  // The repeated keys in all, once the object (members up to `end`) has closed.
  std::uint32_t Finish(Slot* slots, const char* strings, std::uint32_t object, std::uint32_t end,
                       std::vector<std::pair<std::string_view, std::uint32_t>>& sorted) {
    if (keys > kIncrementalKeys) shadowed += ShadowRepeatedKeys(slots, strings, object, end, sorted);
    return shadowed;
  }
};

struct Frame {
  std::uint32_t slot;         // the container's own slot
  std::uint32_t parentCount;  // the enclosing container's count so far
  KeyCheck parentKeys;        // the enclosing object's duplicate check
  bool parentIsObject;
};

// Per-thread parse state, reused from one parse to the next so a parse allocates only the
// buffers of the document it returns.
struct ParseScratch {
  simdjson::dom::parser dom;
  simdjson::ondemand::parser onDemand;
  std::unique_ptr<char[]> input;
  std::size_t inputCapacity = 0;
  std::vector<Frame> frames = std::vector<Frame>(kMaxDepth + 2);
  std::vector<std::pair<std::string_view, std::uint32_t>> sorted;

  // Copies the text into a buffer with the zeroed padding simdjson reads past the end.
  const char* Pad(const void* data, std::size_t length) {
    if (inputCapacity < length + simdjson::SIMDJSON_PADDING) {
      inputCapacity = std::max(length + simdjson::SIMDJSON_PADDING, inputCapacity + inputCapacity / 2);
      input.reset(new char[inputCapacity]);
    }
    if (length) std::memcpy(input.get(), data, length);
    std::memset(input.get() + length, 0, simdjson::SIMDJSON_PADDING);
    return input.get();
  }
};

// A document under construction: the tape is sized from an upper bound (or grows, on the
// On-Demand path), and the string buffer holds the whole input's worth of text, since
// unescaped text is never longer than its JSON form.
class DocumentBuffers {
 public:
  DocumentBuffers(std::size_t inputLength, std::size_t slotCapacity)
      : document_(std::make_shared<ParsedDocument>()), capacity_(std::max<std::size_t>(slotCapacity, 4)),
        stringsCapacity_(inputLength) {
    document_->tape.reset(new Slot[capacity_]);
    document_->strings.reset(new char[stringsCapacity_ + kStringSlack]);
  }

  Slot* Slots() const noexcept { return document_->tape.get(); }
  char* Strings() const noexcept { return document_->strings.get(); }
  std::size_t Capacity() const noexcept { return capacity_; }

  void Grow() {
    const std::size_t capacity = capacity_ * 2;
    std::unique_ptr<Slot[]> tape(new Slot[capacity]);
    std::memcpy(tape.get(), document_->tape.get(), capacity_ * sizeof(Slot));
    document_->tape = std::move(tape);
    capacity_ = capacity;
  }

  std::shared_ptr<const ParsedDocument> Finish(std::uint32_t slots, std::size_t stringBytes) {
    // Give back what a number-heavy document left unused of either buffer.
    if (stringBytes * 4 < stringsCapacity_ && stringsCapacity_ > 4096) {
      std::unique_ptr<char[]> exact(new char[stringBytes + 1]);
      std::memcpy(exact.get(), document_->strings.get(), stringBytes);
      document_->strings = std::move(exact);
    }
    if (std::size_t{slots} * 2 < capacity_ && capacity_ > 256) {
      std::unique_ptr<Slot[]> exact(new Slot[slots]);
      std::memcpy(exact.get(), document_->tape.get(), slots * sizeof(Slot));
      document_->tape = std::move(exact);
    }
    return std::move(document_);
  }

 private:
  std::shared_ptr<ParsedDocument> document_;
  std::size_t capacity_;
  std::size_t stringsCapacity_;
};

// The On-Demand path: for documents the DOM stage refuses over a number (DictionaryOnDemand.cpp).
simdjson::error_code ParseOnDemand(ParseScratch& scratch, const char* text, std::size_t length,
                                   std::shared_ptr<const ParsedDocument>& out);

}  // namespace kelcore::utility::tape

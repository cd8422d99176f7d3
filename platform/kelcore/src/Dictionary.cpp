#include "kelcore/Dictionary.h"

#include <simdjson.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>
#include <type_traits>

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

namespace {

// simdjson's DOM stage accepts 1023 levels around a value (1024 only when the innermost is
// empty); the On-Demand path stops at 1023 so nothing it accepts is refused when read again.
constexpr std::size_t kMaxDepth = 1023;

// Spare bytes after the string buffer: short strings are copied in whole 16-byte blocks and key
// hashes read 8 bytes at a time, both running past the end of the text itself.
constexpr std::size_t kStringSlack = 64;

std::uint64_t Load64(const char* p) noexcept {
  std::uint64_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

// A hash of a key's length and first and last 8 bytes: enough to tell the keys of one object
// apart almost always, for a couple of loads and multiplies. Reads 8 bytes even of shorter keys.
std::uint64_t KeyHash(const char* text, std::uint32_t length) noexcept {
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
void CopyText(char* destination, const void* source, std::size_t length) noexcept {
  if (length <= 32) {
    std::memcpy(destination, source, 16);
    std::memcpy(destination + 16, static_cast<const char*>(source) + 16, 16);
  } else {
    std::memcpy(destination, source, length);
  }
}

std::uint32_t NextSlot(const Slot* slots, std::uint32_t i) noexcept {
  return ParsedDocument::IsContainer(slots[i].kind) ? static_cast<std::uint32_t>(slots[i].payload) : i + 1;
}

bool SameText(const Slot* slots, const char* strings, std::uint32_t a, std::uint32_t b) noexcept {
  return slots[a].count == slots[b].count &&
         std::memcmp(strings + slots[a].payload, strings + slots[b].payload, slots[a].count) == 0;
}

// Duplicate keys are caught as keys are added: each key sets one bit of a 128-bit filter, and
// only a key whose bit is already set is compared with the earlier keys, so objects of distinct
// keys (all of them, in practice) cost a few instructions per key. Past kIncrementalKeys the
// filter is too full to help and the object is checked in full, sorted, when it closes.
constexpr std::uint32_t kIncrementalKeys = 64;

// True when the key at `key` repeats an earlier visible key of the object at `object`.
bool RepeatsEarlierKey(const Slot* slots, const char* strings, std::uint32_t object, std::uint32_t key) noexcept {
  for (std::uint32_t earlier = object + 1; earlier < key; earlier = NextSlot(slots, earlier + 1)) {
    if (!(slots[earlier].flags & detail::kShadowed) && SameText(slots, strings, earlier, key)) return true;
  }
  return false;
}

// Checks an object of more than kIncrementalKeys keys in full when it closes: sorting by (text,
// position) puts each first occurrence ahead of its repeats, in O(n log n) whatever the keys look
// like. Returns how many keys it newly marked.
std::uint32_t ShadowRepeatedKeys(Slot* slots, const char* strings, std::uint32_t object, std::uint32_t end,
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

// Documents above this size get a parser of their own instead of leaving a thread holding
// buffers sized for them.
constexpr std::size_t kLargeDocument = std::size_t{16} << 20;

std::string Reason(simdjson::error_code code) { return std::string("invalid JSON: ") + simdjson::error_message(code); }

// The fast path: simdjson's DOM stage builds its own tape, which we then copy into ours in one
// linear pass. Walking the On-Demand API over every value costs more than twice as much here,
// and a parsed answer is always read in full.
simdjson::error_code ParseWithDom(ParseScratch& scratch, const char* text, std::size_t length,
                                  std::shared_ptr<const ParsedDocument>& out) {
  simdjson::dom::element root;
  if (auto error = scratch.dom.parse(text, length, false).get(root)) return error;
  const std::uint64_t* words = scratch.dom.doc.tape.get();
  const std::uint8_t* source = scratch.dom.doc.string_buf.get();
  // The root word holds the tape's length; the last word closes the root again. Every value
  // takes at least one word, so the word count bounds our slot count.
  const std::size_t end = (words[0] & simdjson::internal::JSON_VALUE_MASK) - 1;
  DocumentBuffers buffers(length, end);
  Slot* const slots = buffers.Slots();
  char* const strings = buffers.Strings();
  Frame* const frames = scratch.frames.data();

  // Hot state lives in locals so the compiler can keep it in registers across the text copies.
  std::uint32_t n = 0;
  std::size_t used = 0;
  std::size_t depth = 0;
  std::uint32_t count = 0;
  std::uint32_t container = 0;
  KeyCheck keys;
  bool inObject = false;
  bool keyNext = false;
  for (std::size_t i = 1; i < end;) {
    const std::uint64_t word = words[i];
    const std::uint64_t payload = word & simdjson::internal::JSON_VALUE_MASK;
    switch (static_cast<char>(word >> 56)) {
      case '"': {
        std::uint32_t size;
        std::memcpy(&size, source + payload, sizeof size);
        const char* chars = reinterpret_cast<const char*>(source + payload + sizeof size);
        CopyText(strings + used, chars, size);
        slots[n] = Slot{Kind::String, 0, 0, size, used};
        if (keyNext) {
          // Hashed from the source: reading back the bytes just copied would stall on the stores.
          keys.Add(slots, strings, container, n, KeyHash(chars, size));
          keyNext = false;
        } else {
          ++count;
          keyNext = inObject;
        }
        used += size;
        ++n;
        ++i;
        continue;
      }
      case 'l':
        slots[n++] = Slot{Kind::Integer, 0, 0, 0, words[i + 1]};
        i += 2;
        break;
      case 'u': {
        const std::uint64_t value = words[i + 1];
        const bool fitsSigned = value <= std::uint64_t(std::numeric_limits<std::int64_t>::max());
        slots[n++] = Slot{fitsSigned ? Kind::Integer : Kind::UnsignedInteger, 0, 0, 0, value};
        i += 2;
        break;
      }
      case 'd':
        slots[n++] = Slot{Kind::Double, 0, 0, 0, words[i + 1]};
        i += 2;
        break;
      case 't':
      case 'f':
        slots[n++] = Slot{Kind::Boolean, 0, 0, 0, (word >> 56) == 't' ? 1u : 0u};
        ++i;
        break;
      case 'n':
        slots[n++] = Slot{Kind::Null, 0, 0, 0, 0};
        ++i;
        break;
      case '{':
      case '[': {
        if (depth == scratch.frames.size()) return simdjson::DEPTH_ERROR;
        // Field by field: a whole-struct copy here stalls on the stores just made to `keys`.
        Frame& frame = frames[depth++];
        frame.slot = container;
        frame.parentCount = count + 1;
        frame.parentKeys.low = keys.low;
        frame.parentKeys.high = keys.high;
        frame.parentKeys.keys = keys.keys;
        frame.parentKeys.shadowed = keys.shadowed;
        frame.parentIsObject = inObject;
        container = n;
        keys = KeyCheck();
        inObject = (word >> 56) == '{';
        slots[n++] = Slot{inObject ? Kind::Object : Kind::Array, 0, 0, 0, 0};
        count = 0;
        keyNext = inObject;
        ++i;
        continue;
      }
      case '}':
      case ']': {
        if (depth == 0) return simdjson::TAPE_ERROR;
        const Frame& frame = frames[--depth];
        const std::uint32_t shadowed = inObject ? keys.Finish(slots, strings, container, n, scratch.sorted) : 0;
        slots[container].count = count - shadowed;
        slots[container].payload = n;
        container = frame.slot;
        count = frame.parentCount;
        keys.low = frame.parentKeys.low;
        keys.high = frame.parentKeys.high;
        keys.keys = frame.parentKeys.keys;
        keys.shadowed = frame.parentKeys.shadowed;
        inObject = frame.parentIsObject;
        keyNext = inObject;
        ++i;
        continue;
      }
      default:
        return simdjson::TAPE_ERROR;
    }
    // A scalar value was added.
    ++count;
    keyNext = inObject;
  }
  out = buffers.Finish(n, used);
  return simdjson::SUCCESS;
}

// The same tape, built one call per value (the On-Demand path).
class TapeBuilder {
 public:
  TapeBuilder(ParseScratch& scratch, std::size_t inputLength)
      : scratch_(scratch), buffers_(inputLength, inputLength / 8 + 4) {}

  std::size_t Depth() const noexcept { return depth_; }

  void Begin(Kind kind) {
    scratch_.frames[depth_++] = Frame{container_, count_ + 1, keys_, inObject_};
    container_ = n_;
    Push(Slot{kind, 0, 0, 0, 0});
    keys_ = KeyCheck();
    inObject_ = kind == Kind::Object;
    count_ = 0;
  }
  void End() {
    const Frame& frame = scratch_.frames[--depth_];
    Slot* slots = buffers_.Slots();
    const std::uint32_t shadowed = inObject_ ? keys_.Finish(slots, buffers_.Strings(), container_, n_, scratch_.sorted) : 0;
    slots[container_].count = count_ - shadowed;
    slots[container_].payload = n_;
    container_ = frame.slot;
    count_ = frame.parentCount;
    keys_ = frame.parentKeys;
    inObject_ = frame.parentIsObject;
  }
  void Key(std::string_view text) {
    PushText(text);
    keys_.Add(buffers_.Slots(), buffers_.Strings(), container_, n_ - 1,
              KeyHash(buffers_.Strings() + buffers_.Slots()[n_ - 1].payload, static_cast<std::uint32_t>(text.size())));
  }
  void String(std::string_view text) {
    PushText(text);
    ++count_;
  }
  void Scalar(Kind kind, std::uint64_t payload) {
    Push(Slot{kind, 0, 0, 0, payload});
    ++count_;
  }
  void Integer(std::int64_t value) { Scalar(Kind::Integer, static_cast<std::uint64_t>(value)); }
  void Unsigned(std::uint64_t value) {
    // Values that fit the signed kind take it, however they were parsed.
    Scalar(value > std::uint64_t(std::numeric_limits<std::int64_t>::max()) ? Kind::UnsignedInteger : Kind::Integer, value);
  }
  void Double(double value) { Scalar(Kind::Double, std::bit_cast<std::uint64_t>(value)); }

  std::shared_ptr<const ParsedDocument> Finish() { return buffers_.Finish(n_, used_); }

 private:
  void Push(const Slot& slot) {
    if (n_ == buffers_.Capacity()) buffers_.Grow();
    buffers_.Slots()[n_++] = slot;
  }
  void PushText(std::string_view text) {
    // Exact copy: the source here is simdjson's scratch, whose layout past the text is its own.
    std::memcpy(buffers_.Strings() + used_, text.data(), text.size());
    Push(Slot{Kind::String, 0, 0, static_cast<std::uint32_t>(text.size()), used_});
    used_ += text.size();
  }

  ParseScratch& scratch_;
  DocumentBuffers buffers_;
  std::uint32_t n_ = 0;
  std::size_t used_ = 0;
  std::size_t depth_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t container_ = 0;
  KeyCheck keys_;
  bool inObject_ = false;
};

// --- The On-Demand path -------------------------------------------------------------------
// simdjson's DOM stage rejects integers beyond 64 bits; JSON allows them and our contract makes
// them doubles. Documents the DOM stage refuses over a number are walked again here, value by
// value, where each number can be looked at on its own.

namespace ondemand = simdjson::ondemand;

// Numbers on this path are converted here, from their text, not by simdjson 3.0's On-Demand
// getters, which get some right-looking numbers wrong: a root integer goes through a fixed
// 21-byte copy that truncates a longer text ("-18446744073709551616" came back as the integer
// -1844674407370955161), and "0." followed by 20 or more digits is misread (0.42225574925786837226
// came back as 0.0533...). The DOM stage reads them correctly and so, being correctly rounded
// too, does std::from_chars; the two paths therefore agree to the bit.

bool IsJSONSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// JSON's number grammar, checked on every token before it is converted.
bool IsJSONNumber(std::string_view token) noexcept {
  std::size_t i = 0;
  auto digits = [&] {
    const std::size_t start = i;
    while (i < token.size() && token[i] >= '0' && token[i] <= '9') ++i;
    return i > start;
  };
  if (i < token.size() && token[i] == '-') ++i;
  if (i < token.size() && token[i] == '0') {
    ++i;
  } else if (!digits()) {
    return false;
  }
  if (i < token.size() && token[i] == '.') {
    ++i;
    if (!digits()) return false;
  }
  if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    if (i < token.size() && (token[i] == '+' || token[i] == '-')) ++i;
    if (!digits()) return false;
  }
  return i == token.size();
}

// For a well-formed number that does not fit a double: whether it is too small (below the
// least subnormal) rather than too large. Decided by the decimal exponent of its first
// significant digit, which is negative for every number below 1.
bool IsBelowDoubleRange(std::string_view token) noexcept {
  std::size_t i = token[0] == '-' ? 1 : 0;
  long long intDigits = 0;
  long long leadingZeros = 0;  // zeros ahead of the first significant digit, across the point
  bool significant = false;
  for (; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i, ++intDigits) {
    if (!significant && token[i] == '0') {
      ++leadingZeros;
    } else {
      significant = true;
    }
  }
  if (i < token.size() && token[i] == '.') {
    for (++i; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i) {
      if (!significant && token[i] == '0') {
        ++leadingZeros;
      } else {
        significant = true;
      }
    }
  }
  long long exponent = 0;
  if (i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    const bool negative = i < token.size() && token[i] == '-';
    if (i < token.size() && (token[i] == '+' || token[i] == '-')) ++i;
    // Saturated: an exponent of any length only needs to be known as "huge".
    for (; i < token.size(); ++i) exponent = std::min<long long>(exponent * 10 + (token[i] - '0'), 1LL << 40);
    if (negative) exponent = -exponent;
  }
  return intDigits - 1 - leadingZeros + exponent < 0;
}

// Adds the number `token` (surrounding JSON whitespace allowed) to the tape. Integers keep their
// kind while they fit 64 bits; anything else is a double; beyond a double's range is an error
// and below it a zero of the number's sign, both as the DOM stage has it.
simdjson::error_code BuildNumberFromText(std::string_view token, TapeBuilder& builder) {
  while (!token.empty() && IsJSONSpace(token.front())) token.remove_prefix(1);
  while (!token.empty() && IsJSONSpace(token.back())) token.remove_suffix(1);
  if (!IsJSONNumber(token)) return simdjson::NUMBER_ERROR;
  const char* const first = token.data();
  const char* const last = first + token.size();
  if (token.find_first_of(".eE") == std::string_view::npos) {
    std::int64_t signedValue;
    if (const auto [end, error] = std::from_chars(first, last, signedValue); error == std::errc() && end == last) {
      builder.Integer(signedValue);
      return simdjson::SUCCESS;
    }
    std::uint64_t unsignedValue;
    if (const auto [end, error] = std::from_chars(first, last, unsignedValue); error == std::errc() && end == last) {
      builder.Unsigned(unsignedValue);
      return simdjson::SUCCESS;
    }
  }
  double value;
  const auto [end, error] = std::from_chars(first, last, value);
  if (error == std::errc::result_out_of_range && IsBelowDoubleRange(token)) {
    value = token[0] == '-' ? -0.0 : 0.0;
  } else if (error != std::errc() || end != last) {
    return simdjson::NUMBER_ERROR;
  }
  builder.Double(value);
  return simdjson::SUCCESS;
}

simdjson::error_code BuildValue(ondemand::value value, TapeBuilder& builder);

simdjson::error_code BuildObject(ondemand::object object, TapeBuilder& builder) {
  builder.Begin(Kind::Object);
  for (auto member : object) {
    ondemand::field field;
    if (auto error = std::move(member).get(field)) return error;
    std::string_view key;
    if (auto error = field.unescaped_key().get(key)) return error;
    builder.Key(key);
    if (auto error = BuildValue(field.value(), builder)) return error;
  }
  builder.End();
  return simdjson::SUCCESS;
}

simdjson::error_code BuildArray(ondemand::array array, TapeBuilder& builder) {
  builder.Begin(Kind::Array);
  for (auto element : array) {
    ondemand::value value;
    if (auto error = std::move(element).get(value)) return error;
    if (auto error = BuildValue(value, builder)) return error;
  }
  builder.End();
  return simdjson::SUCCESS;
}

template <class Source>  // ondemand::value, or ondemand::document for a scalar root
simdjson::error_code BuildScalar(Source& source, ondemand::json_type type, TapeBuilder& builder) {
  switch (type) {
    case ondemand::json_type::string: {
      std::string_view text;
      if (auto error = source.get_string().get(text)) return error;
      builder.String(text);
      return simdjson::SUCCESS;
    }
    case ondemand::json_type::number:
      if constexpr (std::is_same_v<Source, ondemand::value>) {
        return BuildNumberFromText(source.raw_json_token(), builder);
      } else {
        return simdjson::TAPE_ERROR;  // a root number is read from the whole text instead
      }
    case ondemand::json_type::boolean: {
      bool flag;
      if (auto error = source.get_bool().get(flag)) return error;
      builder.Scalar(Kind::Boolean, flag);
      return simdjson::SUCCESS;
    }
    case ondemand::json_type::null: {
      bool isNull = false;
      if (auto error = source.is_null().get(isNull)) return error;
      if (!isNull) return simdjson::N_ATOM_ERROR;
      builder.Scalar(Kind::Null, 0);
      return simdjson::SUCCESS;
    }
    default:
      return simdjson::TAPE_ERROR;
  }
}

simdjson::error_code BuildValue(ondemand::value value, TapeBuilder& builder) {
  ondemand::json_type type;
  if (auto error = value.type().get(type)) return error;
  // Checked before entering: simdjson itself must never see a level beyond its own bound.
  if ((type == ondemand::json_type::object || type == ondemand::json_type::array) && builder.Depth() >= kMaxDepth) {
    return simdjson::DEPTH_ERROR;
  }
  if (type == ondemand::json_type::object) {
    ondemand::object object;
    if (auto error = value.get_object().get(object)) return error;
    return BuildObject(object, builder);
  }
  if (type == ondemand::json_type::array) {
    ondemand::array array;
    if (auto error = value.get_array().get(array)) return error;
    return BuildArray(array, builder);
  }
  return BuildScalar(value, type, builder);
}

// simdjson 3.0 keeps the document's position to itself; this reads it to tell whether anything
// follows the root value.
struct DocumentEnd : ondemand::document {
  static bool Reached(ondemand::document& document) { return (document.*(&DocumentEnd::iter)).at_end(); }
};

simdjson::error_code ParseOnDemand(ParseScratch& scratch, const char* text, std::size_t length,
                                   std::shared_ptr<const ParsedDocument>& out) {
  // Room for our own bound plus the document level, so ours is the limit that triggers.
  if (scratch.onDemand.max_depth() != kMaxDepth + 2) {
    if (auto error = scratch.onDemand.allocate(length, kMaxDepth + 2)) return error;
  }
  ondemand::document document;
  if (auto error = scratch.onDemand.iterate(text, length, length + simdjson::SIMDJSON_PADDING).get(document)) {
    return error;
  }
  TapeBuilder builder(scratch, length);
  ondemand::json_type type;
  if (auto error = document.type().get(type)) return error;
  simdjson::error_code error = simdjson::SUCCESS;
  if (type == ondemand::json_type::object) {
    ondemand::object object;
    error = document.get_object().get(object);
    if (!error) error = BuildObject(object, builder);
  } else if (type == ondemand::json_type::array) {
    ondemand::array array;
    error = document.get_array().get(array);
    if (!error) error = BuildArray(array, builder);
  } else if (type == ondemand::json_type::number) {
    // The document is this one number: read from the whole text, so whatever follows it in
    // the text makes it malformed.
    if (auto numberError = BuildNumberFromText(std::string_view(text, length), builder)) return numberError;
    out = builder.Finish();
    return simdjson::SUCCESS;
  } else {
    error = BuildScalar(document, type, builder);
  }
  if (error) return error;
  if (!DocumentEnd::Reached(document)) return simdjson::TRAILING_CONTENT;
  out = builder.Finish();
  return simdjson::SUCCESS;
}

// --- Writing ---------------------------------------------------------------------------------

// Length of the well-formed UTF-8 sequence at p, or 0 when the bytes there are not one.
std::size_t UTF8SequenceLength(const unsigned char* p, std::size_t available) noexcept {
  const unsigned char b0 = p[0];
  std::size_t length;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3;
    if (b0 == 0xE0) low = 0xA0;   // overlong
    if (b0 == 0xED) high = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4;
    if (b0 == 0xF0) low = 0x90;   // overlong
    if (b0 == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (available < length || p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}

class Writer {
 public:
  std::string out;


  void String(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    out += '"';
    std::size_t run = 0;  // start of the pending stretch of bytes that need no escaping
    for (std::size_t i = 0; i < n;) {
      const unsigned char c = p[i];
      if (c >= 0x20 && c != '"' && c != '\\' && c < 0x80) {
        ++i;
        continue;
      }
      if (c >= 0x80) {
        if (const std::size_t length = UTF8SequenceLength(p + i, n - i)) {
          i += length;
          continue;
        }
      }
      out.append(text.data() + run, i - run);
      switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        default:
          if (c < 0x20) {
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
          } else {
            out += "\\ufffd";  // a byte that does not start well-formed UTF-8
          }
      }
      run = ++i;
    }
    out.append(text.data() + run, n - run);
    out += '"';
  }

  void Integer(std::int64_t value) { Chars(value); }
  void Unsigned(std::uint64_t value) { Chars(value); }
  void Double(double value) {
    if (!std::isfinite(value)) {
      out += "null";  // JSON has no spelling for NaN or the infinities
      return;
    }
    char buffer[40];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
    // A double written like an integer would come back as one; keep its kind visible.
    if (std::find_if(buffer, result.ptr, [](char c) { return c == '.' || c == 'e'; }) == result.ptr) out += ".0";
  }

  void Tape(const ParsedDocument& document, std::uint32_t index) {
    const Slot& slot = document.tape[index];
    switch (slot.kind) {
      case Kind::Null: out += "null"; break;
      case Kind::Boolean: out += slot.payload ? "true" : "false"; break;
      case Kind::Integer: Integer(static_cast<std::int64_t>(slot.payload)); break;
      case Kind::UnsignedInteger: Unsigned(slot.payload); break;
      case Kind::Double: Double(std::bit_cast<double>(slot.payload)); break;
      case Kind::String: String(document.Text(index)); break;
      case Kind::Array: {
        out += '[';
        bool first = true;
        document.ForEachElement(index, [&](std::uint32_t element) {
          if (!first) out += ',';
          first = false;
          Tape(document, element);
          return true;
        });
        out += ']';
        break;
      }
      case Kind::Object: {
        out += '{';
        bool first = true;
        document.ForEachMember(index, [&](std::uint32_t key, std::uint32_t value) {
          if (!first) out += ',';
          first = false;
          String(document.Text(key));
          out += ':';
          Tape(document, value);
          return true;
        });
        out += '}';
        break;
      }
    }
  }

  void Entries(const detail::ObjectEntries* entries) {
    out += '{';
    if (entries) {
      bool first = true;
      for (const auto& [key, value] : entries->entries) {
        if (!first) out += ',';
        first = false;
        String(key.View());
        out += ':';
        Any(value);
      }
    }
    out += '}';
  }

  void Any(const DictionaryValue& value);

 private:
  template <class T>
  void Chars(T value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
  }
};

}  // namespace

// --- DictionaryValue -------------------------------------------------------------------------

DictionaryValue::DictionaryValue() noexcept : integer_(0) {}
DictionaryValue::DictionaryValue(bool value) noexcept : kind_(Kind::Boolean), integer_(0) { boolean_ = value; }
DictionaryValue::DictionaryValue(long long value) noexcept : kind_(Kind::Integer), integer_(value) {}
DictionaryValue::DictionaryValue(unsigned long value) noexcept
    : DictionaryValue(static_cast<unsigned long long>(value)) {}
DictionaryValue::DictionaryValue(unsigned long long value) noexcept
    : kind_(value > std::uint64_t(std::numeric_limits<std::int64_t>::max()) ? Kind::UnsignedInteger : Kind::Integer),
      unsigned_(value) {}
DictionaryValue::DictionaryValue(double value) noexcept : kind_(Kind::Double), double_(value) {}

DictionaryValue::DictionaryValue(std::string_view text)
    : rep_(Rep::Text), kind_(Kind::String), integer_(0), storage_(std::make_shared<const std::string>(text)) {}

DictionaryValue::DictionaryValue(const Dictionary& object) : rep_(Rep::Object), kind_(Kind::Object), integer_(0) {
  if (object.owned_) {
    storage_ = object.owned_;
  } else if (object.view_) {
    rep_ = Rep::View;
    index_ = object.index_;
    storage_ = object.view_;
  }
}

DictionaryValue::DictionaryValue(std::vector<DictionaryValue> array)
    : rep_(Rep::Array), kind_(Kind::Array), integer_(0),
      storage_(std::make_shared<const detail::ArrayElements>(detail::ArrayElements{std::move(array)})) {}

DictionaryValue::DictionaryValue(std::shared_ptr<const ParsedDocument> document, std::uint32_t index) noexcept
    : integer_(0) {
  const Slot& slot = document->tape[index];
  kind_ = slot.kind;
  switch (slot.kind) {
    case Kind::Null: break;
    case Kind::Boolean: boolean_ = slot.payload != 0; break;
    case Kind::Integer:
    case Kind::UnsignedInteger: unsigned_ = slot.payload; break;
    case Kind::Double: double_ = std::bit_cast<double>(slot.payload); break;
    default:
      // Scalars are copied out; text and containers stay views that keep the document alive.
      rep_ = Rep::View;
      index_ = index;
      storage_ = std::move(document);
  }
}

DictionaryValue::~DictionaryValue() = default;

DictionaryValue::Kind DictionaryValue::GetKind() const noexcept { return kind_; }

bool DictionaryValue::AsBool(bool fallback) const noexcept { return kind_ == Kind::Boolean ? boolean_ : fallback; }

std::int64_t DictionaryValue::AsInt64(std::int64_t fallback) const noexcept { return IsInteger() ? integer_ : fallback; }

std::uint64_t DictionaryValue::AsUInt64(std::uint64_t fallback) const noexcept { return IsInteger() ? unsigned_ : fallback; }

double DictionaryValue::AsDouble(double fallback) const noexcept {
  switch (kind_) {
    case Kind::Integer: return static_cast<double>(integer_);
    case Kind::UnsignedInteger: return static_cast<double>(unsigned_);
    case Kind::Double: return double_;
    default: return fallback;
  }
}

std::string_view DictionaryValue::AsStringView() const noexcept {
  if (kind_ != Kind::String) return {};
  if (rep_ == Rep::View) return static_cast<const ParsedDocument*>(storage_.get())->Text(index_);
  return *static_cast<const std::string*>(storage_.get());
}

Dictionary DictionaryValue::AsDictionary() const {
  Dictionary result;
  if (kind_ != Kind::Object) return result;
  if (rep_ == Rep::View) {
    result.view_ = std::static_pointer_cast<const ParsedDocument>(storage_);
    result.index_ = index_;
  } else if (storage_) {
    // Shared, not copied: the dictionary copies on its first write while we still hold it.
    result.owned_ = std::const_pointer_cast<detail::ObjectEntries>(std::static_pointer_cast<const detail::ObjectEntries>(storage_));
  }
  return result;
}

std::vector<DictionaryValue> DictionaryValue::AsArray() const {
  std::vector<DictionaryValue> result;
  if (kind_ != Kind::Array) return result;
  if (rep_ == Rep::View) {
    auto document = std::static_pointer_cast<const ParsedDocument>(storage_);
    result.reserve(document->tape[index_].count);
    document->ForEachElement(index_, [&](std::uint32_t element) {
      result.push_back(DictionaryValue(document, element));
      return true;
    });
  } else {
    result = static_cast<const detail::ArrayElements*>(storage_.get())->elements;
  }
  return result;
}

std::size_t DictionaryValue::Size() const noexcept {
  if (kind_ != Kind::Array && kind_ != Kind::Object) return 0;
  if (rep_ == Rep::View) return static_cast<const ParsedDocument*>(storage_.get())->tape[index_].count;
  if (!storage_) return 0;
  if (kind_ == Kind::Array) return static_cast<const detail::ArrayElements*>(storage_.get())->elements.size();
  return static_cast<const detail::ObjectEntries*>(storage_.get())->entries.size();
}

namespace {

bool SameDouble(double a, double b) noexcept { return a == b || (std::isnan(a) && std::isnan(b)); }

// Deep comparison of two parsed sub-trees without materialising values.
bool TapeEqual(const ParsedDocument& a, std::uint32_t i, const ParsedDocument& b, std::uint32_t j) {
  const Slot& x = a.tape[i];
  const Slot& y = b.tape[j];
  if (x.kind != y.kind) return false;
  switch (x.kind) {
    case Kind::Null: return true;
    case Kind::Boolean:
    case Kind::Integer:
    case Kind::UnsignedInteger: return x.payload == y.payload;
    case Kind::Double: return SameDouble(std::bit_cast<double>(x.payload), std::bit_cast<double>(y.payload));
    case Kind::String: return a.Text(i) == b.Text(j);
    case Kind::Array: {
      if (x.count != y.count) return false;
      std::uint32_t other = j + 1;
      bool equal = true;
      a.ForEachElement(i, [&](std::uint32_t element) {
        equal = TapeEqual(a, element, b, other);
        other = b.Next(other);
        return equal;
      });
      return equal;
    }
    case Kind::Object: {
      if (x.count != y.count) return false;
      // Members usually come in the same order; look keys up only when they do not.
      bool ordered = true;
      bool equal = true;
      std::uint32_t otherKey = j + 1;
      a.ForEachMember(i, [&](std::uint32_t key, std::uint32_t value) {
        while (b.tape[otherKey].flags & detail::kShadowed) otherKey = b.Next(otherKey + 1);
        if (a.Text(key) != b.Text(otherKey)) return ordered = false;
        equal = TapeEqual(a, value, b, otherKey + 1);
        otherKey = b.Next(otherKey + 1);
        return equal;
      });
      if (ordered) return equal;
      equal = true;
      a.ForEachMember(i, [&](std::uint32_t key, std::uint32_t value) {
        const std::uint32_t found = b.Find(j, a.Text(key));
        equal = found != 0 && TapeEqual(a, value, b, found);
        return equal;
      });
      return equal;
    }
  }
  return false;
}

}  // namespace

bool operator==(const DictionaryValue& a, const DictionaryValue& b) {
  using Rep = DictionaryValue::Rep;
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case Kind::Null: return true;
    case Kind::Boolean: return a.boolean_ == b.boolean_;
    case Kind::Integer:
    case Kind::UnsignedInteger: return a.unsigned_ == b.unsigned_;
    case Kind::Double: return SameDouble(a.double_, b.double_);
    case Kind::String: return a.AsStringView() == b.AsStringView();
    case Kind::Array:
    case Kind::Object:
      if (a.rep_ == Rep::View && b.rep_ == Rep::View) {
        return TapeEqual(*static_cast<const ParsedDocument*>(a.storage_.get()), a.index_,
                         *static_cast<const ParsedDocument*>(b.storage_.get()), b.index_);
      }
      if (a.kind_ == Kind::Object) return a.AsDictionary() == b.AsDictionary();
      return a.AsArray() == b.AsArray();
  }
  return false;
}

// --- Dictionary ------------------------------------------------------------------------------

Dictionary::Dictionary() noexcept = default;

Dictionary::Dictionary(std::initializer_list<std::pair<ImmutableString, DictionaryValue>> entries) {
  for (const auto& [key, value] : entries) Set(key, value);
}

Dictionary::~Dictionary() = default;

std::size_t Dictionary::size() const noexcept {
  if (owned_) return owned_->entries.size();
  if (view_) return view_->tape[index_].count;
  return 0;
}

bool Dictionary::Contains(std::string_view key) const noexcept {
  if (owned_) {
    return std::any_of(owned_->entries.begin(), owned_->entries.end(),
                       [&](const auto& entry) { return entry.first.View() == key; });
  }
  return view_ && view_->Find(index_, key) != 0;
}

std::optional<DictionaryValue> Dictionary::Get(std::string_view key) const {
  if (owned_) {
    for (const auto& [name, value] : owned_->entries) {
      if (name.View() == key) return value;
    }
    return std::nullopt;
  }
  if (view_) {
    if (const std::uint32_t found = view_->Find(index_, key)) return DictionaryValue(view_, found);
  }
  return std::nullopt;
}

std::string Dictionary::GetString(std::string_view key, std::string_view fallback) const {
  if (!owned_ && view_) {
    const std::uint32_t found = view_->Find(index_, key);
    if (found && view_->tape[found].kind == Kind::String) return std::string(view_->Text(found));
    return std::string(fallback);
  }
  const auto value = Get(key);
  return value && value->IsString() ? value->AsString() : std::string(fallback);
}

ImmutableString Dictionary::GetImmutableString(std::string_view key) const {
  if (!owned_ && view_) {
    const std::uint32_t found = view_->Find(index_, key);
    if (found && view_->tape[found].kind == Kind::String) return ImmutableString(view_->Text(found));
    return ImmutableString();
  }
  const auto value = Get(key);
  return value ? value->AsImmutableString() : ImmutableString();
}

std::int64_t Dictionary::GetInteger(std::string_view key, std::int64_t fallback) const {
  const auto value = Get(key);
  return value ? value->AsInt64(fallback) : fallback;
}

double Dictionary::GetDouble(std::string_view key, double fallback) const {
  const auto value = Get(key);
  return value ? value->AsDouble(fallback) : fallback;
}

bool Dictionary::GetBool(std::string_view key, bool fallback) const {
  const auto value = Get(key);
  return value ? value->AsBool(fallback) : fallback;
}

Dictionary Dictionary::GetDictionary(std::string_view key) const {
  const auto value = Get(key);
  return value ? value->AsDictionary() : Dictionary();
}

std::vector<DictionaryValue> Dictionary::GetArray(std::string_view key) const {
  const auto value = Get(key);
  return value ? value->AsArray() : std::vector<DictionaryValue>();
}

void Dictionary::MakeOwned() {
  if (view_) {
    auto entries = std::make_shared<detail::ObjectEntries>();
    entries->entries.reserve(view_->tape[index_].count);
    view_->ForEachMember(index_, [&](std::uint32_t key, std::uint32_t value) {
      entries->entries.emplace_back(ImmutableString(view_->Text(key)), DictionaryValue(view_, value));
      return true;
    });
    owned_ = std::move(entries);
    view_.reset();
    index_ = 0;
  } else if (!owned_) {
    owned_ = std::make_shared<detail::ObjectEntries>();
  } else {
    // use_count() alone reads relaxed, which would not order our writes after the reads of a
    // thread that just dropped the last other reference. Taking a reference first is an
    // acquire-release step on the same count, and does (and ThreadSanitizer sees it).
    const std::shared_ptr<detail::ObjectEntries> probe = owned_;
    if (probe.use_count() != 2) owned_ = std::make_shared<detail::ObjectEntries>(*owned_);
  }
}

void Dictionary::Set(const ImmutableString& key, DictionaryValue value) {
  MakeOwned();
  for (auto& entry : owned_->entries) {
    if (entry.first == key) {
      entry.second = std::move(value);
      return;
    }
  }
  owned_->entries.emplace_back(key, std::move(value));
}

bool Dictionary::Remove(std::string_view key) {
  if (!Contains(key)) return false;
  MakeOwned();
  auto& entries = owned_->entries;
  entries.erase(std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.first.View() == key; }));
  return true;
}

std::vector<std::pair<ImmutableString, DictionaryValue>> Dictionary::Entries() const {
  if (owned_) return owned_->entries;
  std::vector<std::pair<ImmutableString, DictionaryValue>> result;
  if (view_) {
    result.reserve(view_->tape[index_].count);
    view_->ForEachMember(index_, [&](std::uint32_t key, std::uint32_t value) {
      result.emplace_back(ImmutableString(view_->Text(key)), DictionaryValue(view_, value));
      return true;
    });
  }
  return result;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  if (!a.owned_ && !b.owned_ && a.view_ && b.view_) return TapeEqual(*a.view_, a.index_, *b.view_, b.index_);
  const auto left = a.Entries();
  const auto right = b.Entries();
  bool ordered = true;
  for (std::size_t i = 0; i < left.size() && ordered; ++i) ordered = left[i].first == right[i].first;
  if (ordered) {
    for (std::size_t i = 0; i < left.size(); ++i) {
      if (!(left[i].second == right[i].second)) return false;
    }
    return true;
  }
  for (const auto& [key, value] : left) {
    const auto other = b.Get(key.View());
    if (!other || !(value == *other)) return false;
  }
  return true;
}

// --- Parsing and writing ---------------------------------------------------------------------

std::optional<DictionaryValue> JSONParseToDictionaryValue(const void* data, std::size_t length, std::string* error) {
  auto fail = [&](std::string reason) -> std::optional<DictionaryValue> {
    if (error) *error = std::move(reason);
    return std::nullopt;
  };
  if (!data && length) return fail("invalid JSON: no text");
  // Tape indices and string lengths are 32-bit.
  if (length >= std::numeric_limits<std::uint32_t>::max()) return fail("invalid JSON: text larger than 4 GB");

  thread_local ParseScratch tScratch;
  std::unique_ptr<ParseScratch> ownScratch;
  ParseScratch* scratch = &tScratch;
  if (length > kLargeDocument) {
    ownScratch = std::make_unique<ParseScratch>();
    scratch = ownScratch.get();
  }

  const char* text = scratch->Pad(data, length);
  std::shared_ptr<const ParsedDocument> document;
  simdjson::error_code code = ParseWithDom(*scratch, text, length, document);
  if (code == simdjson::NUMBER_ERROR) code = ParseOnDemand(*scratch, text, length, document);
  if (code) return fail(Reason(code));
  if (error) error->clear();
  return DictionaryValue(std::move(document), 0);
}

void Writer::Any(const DictionaryValue& value) {
  std::uint32_t index = 0;
  if (const ParsedDocument* document = ParsedDocument::ViewOf(value, index)) {
    Tape(*document, index);
    return;
  }
  switch (value.GetKind()) {
    case Kind::Null: out += "null"; return;
    case Kind::Boolean: out += value.AsBool() ? "true" : "false"; return;
    case Kind::Integer: Integer(value.AsInt64()); return;
    case Kind::UnsignedInteger: Unsigned(value.AsUInt64()); return;
    case Kind::Double: Double(value.AsDouble()); return;
    case Kind::String: String(value.AsStringView()); return;
    case Kind::Array: {
      out += '[';
      if (const detail::ArrayElements* array = ParsedDocument::ElementsOf(value)) {
        bool first = true;
        for (const auto& element : array->elements) {
          if (!first) out += ',';
          first = false;
          Any(element);
        }
      }
      out += ']';
      return;
    }
    case Kind::Object: Entries(ParsedDocument::EntriesOf(value)); return;
  }
}

std::string JSONWrite(const DictionaryValue& value) {
  Writer writer;
  writer.Any(value);
  return std::move(writer.out);
}

std::string JSONWrite(const Dictionary& object) { return JSONWrite(DictionaryValue(object)); }

}  // namespace kelcore::utility

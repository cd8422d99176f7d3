// Parsing JSON text into a Dictionary document: simdjson's DOM stage, its tape copied into ours in
// one pass; documents it refuses over a number go down the On-Demand path instead.

#include <simdjson.h>

#include <bit>
#include <cstring>
#include <limits>

#include "DictionaryTape.h"

namespace kelcore::utility {

namespace tape {
namespace {


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

}  // namespace
}  // namespace tape

std::optional<DictionaryValue> JSONParseToDictionaryValue(const void* data, std::size_t length, std::string* error) {
  auto fail = [&](std::string reason) -> std::optional<DictionaryValue> {
    if (error) *error = std::move(reason);
    return std::nullopt;
  };
  if (!data && length) return fail("invalid JSON: no text");
  // Tape indices and string lengths are 32-bit.
  if (length >= std::numeric_limits<std::uint32_t>::max()) return fail("invalid JSON: text larger than 4 GB");

  thread_local tape::ParseScratch tScratch;
  std::unique_ptr<tape::ParseScratch> ownScratch;
  tape::ParseScratch* scratch = &tScratch;
  if (length > tape::kLargeDocument) {
    ownScratch = std::make_unique<tape::ParseScratch>();
    scratch = ownScratch.get();
  }

  const char* text = scratch->Pad(data, length);
  std::shared_ptr<const ParsedDocument> document;
  simdjson::error_code code = tape::ParseWithDom(*scratch, text, length, document);
  if (code == simdjson::NUMBER_ERROR) code = tape::ParseOnDemand(*scratch, text, length, document);
  if (code) return fail(tape::Reason(code));
  if (error) error->clear();
  return DictionaryValue(std::move(document), 0);
}

}  // namespace kelcore::utility

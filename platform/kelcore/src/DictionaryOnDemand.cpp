// The On-Demand path of the JSON parser: the same tape, built one call per value, so that numbers
// the DOM stage refuses (integers past 64 bits) can be read from their own text.

#include <simdjson.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>

#include "DictionaryTape.h"

namespace kelcore::utility::tape {

namespace {

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
  std::uint32_t n_ = 0, container_ = 0, count_ = 0;  // slots used; the open container and its count
  std::size_t used_ = 0, depth_ = 0;                 // string bytes used; containers open
  KeyCheck keys_;                                    // of the open container, when an object
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


}  // namespace

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

}  // namespace kelcore::utility::tape

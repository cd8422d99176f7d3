// Writing a Dictionary as JSON text: views are written straight from their tape, built values
// member by member; text that is not well-formed UTF-8 is escaped, never passed through.

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "DictionaryDocument.h"

namespace kelcore::utility {

namespace {


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

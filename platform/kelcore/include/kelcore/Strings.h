#pragma once
// Byte strings of UTF-8 text and the conversions the library needs.

#include <string>
#include <string_view>

namespace kelcore {

// A byte string of UTF-8 text: query texts, JSON text, paging cursors.
using U8Str = std::basic_string<unsigned char>;

inline U8Str ToU8Str(std::string_view text) {
  return U8Str(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}
inline std::string_view AsStringView(const U8Str& text) noexcept {
  return std::string_view(reinterpret_cast<const char*>(text.data()), text.size());
}
inline std::string ToStdString(const U8Str& text) { return std::string(AsStringView(text)); }

// UTF-8 <-> UTF-16. Malformed input is replaced by U+FFFD, never dropped silently or thrown.
std::u16string UTF8ToUTF16(std::string_view utf8);
std::string UTF16ToUTF8(std::u16string_view utf16);

// Host 8-bit text to UTF-8: valid UTF-8 passes unchanged, anything else is read as Latin-1.
std::string Std8ToUTF8String(std::string_view text);

// Lower-cases UTF-8 text: ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic capitals.
std::string ToLowerUTF8(std::string_view text);
// ASCII-only upper-casing: protocol tokens, whatever the host's locale.
std::string ToUpperASCII(std::string_view text);

// Base64 (standard or URL-safe alphabet, padding optional). Garbage gives an empty result.
std::string DecodeBinaryDataFromUTF8String(std::string_view text);
std::string EncodeBinaryDataToBase64(std::string_view bytes);

}  // namespace kelcore

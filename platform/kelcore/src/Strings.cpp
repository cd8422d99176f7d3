#include "kelcore/Strings.h"

#include <array>
#include <cstdint>

namespace kelcore {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes one UTF-8 sequence. Ill-formed input gives kInvalid and the length of its maximal
// subpart (at least one byte), so each broken sequence becomes exactly one U+FFFD, the way the
// Unicode standard recommends. Overlongs, surrogates and values above U+10FFFF are ill-formed.
char32_t DecodeUTF8(const unsigned char* p, std::size_t available, std::size_t& length) noexcept {
  const unsigned char b0 = p[0];
  length = 1;
  if (b0 < 0x80) return b0;
  if (b0 < 0xC2 || b0 > 0xF4) return kInvalid;
  auto continuation = [&](std::size_t i, unsigned char low = 0x80, unsigned char high = 0xBF) {
    return i < available && p[i] >= low && p[i] <= high;
  };
  if (b0 < 0xE0) {
    if (!continuation(1)) return kInvalid;
    length = 2;
    return (char32_t(b0 & 0x1F) << 6) | (p[1] & 0x3F);
  }
  if (b0 < 0xF0) {
    const unsigned char low = b0 == 0xE0 ? 0xA0 : 0x80;
    const unsigned char high = b0 == 0xED ? 0x9F : 0xBF;
    if (!continuation(1, low, high)) return kInvalid;
    if (!continuation(2)) return length = 2, kInvalid;
    length = 3;
    return (char32_t(b0 & 0x0F) << 12) | (char32_t(p[1] & 0x3F) << 6) | (p[2] & 0x3F);
  }
  const unsigned char low = b0 == 0xF0 ? 0x90 : 0x80;
  const unsigned char high = b0 == 0xF4 ? 0x8F : 0xBF;
  if (!continuation(1, low, high)) return kInvalid;
  if (!continuation(2)) return length = 2, kInvalid;
  if (!continuation(3)) return length = 3, kInvalid;
  length = 4;
  return (char32_t(b0 & 0x07) << 18) | (char32_t(p[1] & 0x3F) << 12) | (char32_t(p[2] & 0x3F) << 6) | (p[3] & 0x3F);
}

void AppendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | (c >> 18));
    out += char(0x80 | ((c >> 12) & 0x3F));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

const unsigned char* Bytes(std::string_view text) noexcept { return reinterpret_cast<const unsigned char*>(text.data()); }

bool IsValidUTF8(std::string_view text) noexcept {
  const unsigned char* p = Bytes(text);
  for (std::size_t i = 0, length = 0; i < text.size(); i += length) {
    if (p[i] < 0x80) {
      length = 1;
      continue;
    }
    if (DecodeUTF8(p + i, text.size() - i, length) == kInvalid) return false;
  }
  return true;
}

char32_t ToLower(char32_t c) noexcept {
  if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
  if (c >= 0xC0 && c <= 0xDE) return c == 0xD7 ? c : c + 32;  // U+00D7 is the multiplication sign
  if (c >= 0x100 && c <= 0x17F) {
    if (c == 0x130) return U'i';  // capital I with dot above
    if (c == 0x178) return 0xFF;  // capital Y with diaeresis lives in Latin-1's lower half
    // Capitals sit on even code points here and on odd ones in the two middle runs; U+0138,
    // U+0149 and U+017F are lower-case letters without a pair.
    if ((c <= 0x137) || (c >= 0x14A && c <= 0x177)) return (c % 2 == 0) ? c + 1 : c;
    if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) return (c % 2 == 1) ? c + 1 : c;
    return c;
  }
  if (c >= 0x391 && c <= 0x3A9) return c == 0x3A2 ? c : c + 32;  // U+03A2 is unassigned
  if (c >= 0x400 && c <= 0x40F) return c + 80;
  if (c >= 0x410 && c <= 0x42F) return c + 32;
  return c;
}

constexpr std::array<signed char, 256> MakeBase64Table() {
  std::array<signed char, 256> table{};
  for (auto& entry : table) entry = -1;
  for (int i = 0; i < 26; ++i) {
    table['A' + i] = static_cast<signed char>(i);
    table['a' + i] = static_cast<signed char>(26 + i);
  }
  for (int i = 0; i < 10; ++i) table['0' + i] = static_cast<signed char>(52 + i);
  table['+'] = table['-'] = 62;
  table['/'] = table['_'] = 63;
  return table;
}
constexpr std::array<signed char, 256> kBase64Values = MakeBase64Table();

}  // namespace

std::u16string UTF8ToUTF16(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  const unsigned char* p = Bytes(utf8);
  for (std::size_t i = 0, length = 0; i < utf8.size(); i += length) {
    char32_t c = DecodeUTF8(p + i, utf8.size() - i, length);
    if (c == kInvalid) c = kReplacement;
    if (c < 0x10000) {
      out += char16_t(c);
    } else {
      c -= 0x10000;
      out += char16_t(0xD800 + (c >> 10));
      out += char16_t(0xDC00 + (c & 0x3FF));
    }
  }
  return out;
}

std::string UTF16ToUTF8(std::u16string_view utf16) {
  std::string out;
  out.reserve(utf16.size());
  for (std::size_t i = 0; i < utf16.size(); ++i) {
    char32_t c = utf16[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (utf16[++i] - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = kReplacement;  // a surrogate without its partner
    }
    AppendUTF8(out, c);
  }
  return out;
}

std::string Std8ToUTF8String(std::string_view text) {
  if (IsValidUTF8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() * 2);
  for (unsigned char byte : text) AppendUTF8(out, byte);
  return out;
}

std::string ToLowerUTF8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const unsigned char* p = Bytes(text);
  for (std::size_t i = 0, length = 0; i < text.size(); i += length) {
    if (p[i] < 0x80) {
      length = 1;
      out += char(ToLower(p[i]));
      continue;
    }
    const char32_t c = DecodeUTF8(p + i, text.size() - i, length);
    const char32_t lower = c == kInvalid ? c : ToLower(c);
    // Bytes that are not UTF-8 stay as they were: lower-casing must not lose them.
    if (lower == c) {
      out.append(text.data() + i, length);
    } else {
      AppendUTF8(out, lower);
    }
  }
  return out;
}

std::string ToUpperASCII(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = char(c - 32);
  }
  return out;
}

std::string DecodeBinaryDataFromUTF8String(std::string_view text) {
  std::size_t padding = 0;
  while (padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  const std::string_view body = text.substr(0, text.size() - padding);
  const std::size_t tail = body.size() % 4;
  // One leftover character cannot carry a whole byte; padding, when present, must complete the
  // last quantum exactly.
  if (tail == 1) return {};
  if (padding && (padding > 2 || tail == 0 || tail + padding != 4)) return {};

  std::string out;
  out.reserve(body.size() / 4 * 3 + 2);
  const unsigned char* p = Bytes(body);
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < body.size(); ++i) {
    const signed char value = kBase64Values[p[i]];
    if (value < 0) return {};
    bits = (bits << 6) | std::uint32_t(value);
    if (i % 4 == 3) {
      out += char(bits >> 16);
      out += char(bits >> 8);
      out += char(bits);
      bits = 0;
    }
  }
  // Canonical encodings leave the unused low bits of the last character at zero; anything else
  // is not something an encoder produced.
  if (tail == 2) {
    if (bits & 0xF) return {};
    out += char(bits >> 4);
  } else if (tail == 3) {
    if (bits & 0x3) return {};
    out += char(bits >> 10);
    out += char(bits >> 2);
  }
  return out;
}

std::string EncodeBinaryDataToBase64(std::string_view bytes) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  const unsigned char* p = Bytes(bytes);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = (std::uint32_t(p[i]) << 16) | (std::uint32_t(p[i + 1]) << 8) | p[i + 2];
    out += kAlphabet[group >> 18];
    out += kAlphabet[(group >> 12) & 0x3F];
    out += kAlphabet[(group >> 6) & 0x3F];
    out += kAlphabet[group & 0x3F];
  }
  if (const std::size_t rest = bytes.size() - i) {
    const std::uint32_t group = (std::uint32_t(p[i]) << 16) | (rest == 2 ? std::uint32_t(p[i + 1]) << 8 : 0);
    out += kAlphabet[group >> 18];
    out += kAlphabet[(group >> 12) & 0x3F];
    out += rest == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    out += '=';
  }
  return out;
}

}  // namespace kelcore

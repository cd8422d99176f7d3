// Pure readers of answer heads. Threads: any; no state.

#include "kelnet/internal/HeaderParsing.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <charconv>

namespace kelnet::internal {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

char LowerASCII(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// RFC 9110's tchar, as a table: every request's header names go through it.
constexpr std::array<bool, 256> kTokenChars = [] {
  std::array<bool, 256> table{};
  for (int c = 'a'; c <= 'z'; ++c) table[c] = true;
  for (int c = 'A'; c <= 'Z'; ++c) table[c] = true;
  for (int c = '0'; c <= '9'; ++c) table[c] = true;
  for (const char c : std::string_view("!#$%&'*+-.^_`|~")) table[static_cast<unsigned char>(c)] = true;
  return table;
}();

bool IsTokenChar(char c) { return kTokenChars[static_cast<unsigned char>(c)]; }

}  // namespace

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && (IsBlank(text.back()) || text.back() == '\r' || text.back() == '\n')) text.remove_suffix(1);
  return text;
}

std::optional<std::uint64_t> ParseDecimal(std::string_view text) {
  text = TrimBlanks(text);
  if (text.empty() || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool IsHeaderNameToken(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), IsTokenChar);
}

bool IsSafeHeaderValue(std::string_view value) {
  // Three vectorised scans beat one loop of three compares on the long values (tokens).
  for (const char bad : {'\r', '\n', '\0'}) {
    if (std::memchr(value.data(), bad, value.size())) return false;
  }
  return true;
}

std::optional<ContentRange> ParseContentRange(std::string_view value) {
  value = TrimBlanks(value);
  if (value.substr(0, 6) != "bytes ") return std::nullopt;
  value.remove_prefix(6);
  const auto dash = value.find('-');
  const auto slash = value.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return std::nullopt;
  const auto first = ParseDecimal(value.substr(0, dash));
  const auto last = ParseDecimal(value.substr(dash + 1, slash - dash - 1));
  if (!first || !last || *last < *first) return std::nullopt;
  ContentRange range;
  range.first = *first;
  range.last = *last;
  const std::string_view totalText = TrimBlanks(value.substr(slash + 1));
  if (totalText == "*") return range;
  range.total = ParseDecimal(totalText);
  if (!range.total || *last >= *range.total) return std::nullopt;
  return range;
}

HeaderLine ParseHeaderLine(std::string_view line) {
  HeaderLine parsed;
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.substr(0, 5) == "HTTP/") {
    parsed.kind = HeaderLine::Kind::Status;
    const auto space = line.find(' ');
    if (space != std::string_view::npos) {
      const std::string_view code = line.substr(space + 1, 3);
      const auto status = code.size() == 3 ? ParseDecimal(code) : std::nullopt;
      if (status) parsed.status = static_cast<int>(*status);
    }
    return parsed;
  }
  if (line.empty()) {
    parsed.kind = HeaderLine::Kind::End;
    return parsed;
  }
  if (IsBlank(line.front())) {
    parsed.kind = HeaderLine::Kind::Continuation;
    parsed.value = TrimBlanks(line);
    return parsed;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return parsed;
  // A name that is no token ("bytes 5-") is no header: kept, it would pose as one under a name
  // no lookup can ask for, or shadow a real one after lower-casing.
  const std::string_view name = TrimBlanks(line.substr(0, colon));
  if (!IsHeaderNameToken(name)) return parsed;
  parsed.kind = HeaderLine::Kind::Field;
  parsed.name.reserve(name.size());
  for (char c : name) parsed.name.push_back(LowerASCII(c));
  parsed.value = TrimBlanks(line.substr(colon + 1));
  // curl hands over one line at a time, so a line end or NUL inside a value is a server's attempt
  // at a second header in disguise.
  if (!IsSafeHeaderValue(parsed.value)) return HeaderLine{};
  return parsed;
}

}  // namespace kelnet::internal

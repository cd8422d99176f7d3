#pragma once
// Reading the pieces of an HTTP answer's head that decide where bytes go: header lines and
// Content-Range. Internal to the platform (kelnet and kelappsupport read answers with the same
// rules); not part of what a product is written against.
//
// Pure functions over string_view: no allocation beyond a returned name, no locale, any thread.
// Every input is a server's and may be anything; each function either reads it whole or refuses
// it, and none reads past the view it was given.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelnet::internal {

// Without leading blanks (SP, HT) and trailing blanks and line ends (SP, HT, CR, LF).
std::string_view TrimBlanks(std::string_view text);

// A decimal number of digits only (blanks around it allowed); nullopt when empty, signed, not a
// number or past 64 bits.
std::optional<std::uint64_t> ParseDecimal(std::string_view text);

// A header name is an RFC 9110 token; a value carries no CR, LF or NUL (they would end the
// header early and let the rest pose as headers of its own).
bool IsHeaderNameToken(std::string_view name);
bool IsSafeHeaderValue(std::string_view value);

// "bytes <first>-<last>/<total>" with total "*" when the server does not know it. A range that
// runs backwards, or whose last byte is not inside its own total, is refused like an unreadable one.
struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::optional<std::uint64_t> total;  // nullopt: "*"
};
std::optional<ContentRange> ParseContentRange(std::string_view value);

// One line of an answer's head as curl hands it over (line end included or not).
struct HeaderLine {
  enum class Kind {
    Status,        // "HTTP/..." starts a new answer; status is its code, 0 when unreadable
    Field,         // name (lower-case) and value (trimmed)
    Continuation,  // an obsolete folded line: value (trimmed) belongs to the previous field
    End,           // the empty line that ends the head
    Other,         // nothing we can read (no colon): ignored
  };
  Kind kind = Kind::Other;
  int status = 0;
  std::string name;
  std::string_view value;  // a view into the line
};
HeaderLine ParseHeaderLine(std::string_view line);

}  // namespace kelnet::internal

#pragma once
// URLs: validity, template filling, parts.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kelcore/ImmutableString.h"

namespace kelnet {

// A URL's text; the empty URL stands for "no URL".
class URL {
 public:
  URL() = default;
  explicit URL(kelcore::ImmutableString text) : text_(std::move(text)) {}
  const kelcore::ImmutableString& Text() const noexcept { return text_; }
  bool empty() const noexcept { return text_.empty(); }
  friend bool operator==(const URL& a, const URL& b) noexcept { return a.text_ == b.text_; }

 private:
  kelcore::ImmutableString text_;
};

struct URLParts {
  std::string scheme;  // lower-case
  std::string userInfo;
  std::string host;    // lower-case; IPv6 literals without brackets
  std::optional<std::uint16_t> port;
  std::string path;    // "/" when absent
  std::string query;   // without "?"
  std::string fragment;  // without "#"
};

// The rule: scheme "http" or "https" (any letter case), "://", optional user info ending in '@',
// a non-empty host (a DNS name of letters, digits, '-', '.', '_' in labels of 1-63; or an IPv4 or
// bracketed IPv6 literal), an optional port 1-65535, then an optional path/query/fragment. No
// space or control character anywhere: they would break the request line or start a header.
bool IsValidURL(std::string_view url);
std::optional<URLParts> ParseURL(std::string_view url);
// ParseURL of the last URL this thread asked about, remembered: a thread's requests mostly go
// where its last one went, and an interned URL is recognised by one pointer compare. The
// reference is good until this thread asks about another URL.
const std::optional<URLParts>& ParseURLOfThread(const kelcore::ImmutableString& url);

// Replaces each key of the map (":domain", ":refresh_token", ...) by its value, verbatim (the
// values are not encoded: callers pre-encode what needs it). Keys are replaced longest first,
// so one key that is a prefix of another cannot break it. Gives the empty URL when the result
// is not a valid URL.
URL ReplaceInURL(std::string_view urlTemplate,
                 const std::map<kelcore::ImmutableString, kelcore::ImmutableString>& replacements);

}  // namespace kelnet

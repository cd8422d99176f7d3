#include "kelnet/URL.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <vector>

namespace kelnet {
namespace {

char LowerASCII(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool IsAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Spaces and control characters are what break a request line or smuggle a second header;
// everything else is the server's business (and curl sends it as given).
bool IsForbiddenInURL(char c) {
  auto u = static_cast<unsigned char>(c);
  return u <= 0x20 || u == 0x7f;
}

bool IsValidDnsName(std::string_view host) {
  if (host.empty()) return false;
  std::size_t labelLength = 0;
  for (char c : host) {
    if (c == '.') {
      if (labelLength == 0) return false;  // leading dot or ".."
      labelLength = 0;
      continue;
    }
    if (!(IsAlpha(c) || IsDigit(c) || c == '-' || c == '_')) return false;
    if (++labelLength > 63) return false;
  }
  return true;  // a trailing dot (fully qualified form) is fine
}

// A host whose last label is a number ("8080", "127.1", "0x7f.1") is an IPv4 address to curl and
// to resolvers, which expand the short and octal or hex forms (127.1 is 127.0.0.1, 8080 is
// 0.0.31.144). Only the canonical dotted quad is taken, so the host we judge (throttling, where
// the token may go) is the host curl connects to.
bool IsNumericHostAmbiguous(std::string_view host) {
  if (!host.empty() && host.back() == '.') host.remove_suffix(1);
  const auto dot = host.rfind('.');
  const std::string_view last = dot == std::string_view::npos ? host : host.substr(dot + 1);
  const bool numeric = !last.empty() && std::all_of(last.begin(), last.end(), IsDigit);
  const bool hex = last.size() >= 2 && last[0] == '0' && (last[1] == 'x' || last[1] == 'X');
  if (!numeric && !hex) return false;
  in_addr address{};
  return ::inet_pton(AF_INET, std::string(host).c_str(), &address) != 1;
}

bool IsValidIPv6Literal(std::string_view text) {
  // Loose on purpose: hex groups, colons, an embedded IPv4 tail. The resolver is the judge of the
  // exact form; we only keep out what cannot be an address at all.
  if (text.size() < 2) return false;
  int colons = 0;
  for (char c : text) {
    if (c == ':') {
      ++colons;
    } else if (!(IsHexDigit(c) || c == '.')) {
      return false;
    }
  }
  return colons >= 2 && colons <= 7;
}

}  // namespace

std::optional<URLParts> ParseURL(std::string_view url) {
  const auto separator = url.find("://");
  if (separator == std::string_view::npos) return std::nullopt;
  URLParts parts;
  for (char c : url.substr(0, separator)) parts.scheme.push_back(LowerASCII(c));
  if (parts.scheme != "http" && parts.scheme != "https") return std::nullopt;
  for (char c : url) {
    if (IsForbiddenInURL(c)) return std::nullopt;
  }

  std::string_view rest = url.substr(separator + 3);
  const auto authorityEnd = rest.find_first_of("/?#");
  std::string_view authority = rest.substr(0, authorityEnd);
  std::string_view tail = authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);

  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    parts.userInfo = std::string(authority.substr(0, at));
    authority = authority.substr(at + 1);
  }

  std::string_view host;
  std::string_view portText;
  bool hasPort = false;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, close - 1);
    if (!IsValidIPv6Literal(host)) return std::nullopt;
    std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return std::nullopt;
      hasPort = true;
      portText = after.substr(1);
    }
  } else {
    const auto colon = authority.find(':');
    host = authority.substr(0, colon);
    if (colon != std::string_view::npos) {
      hasPort = true;
      portText = authority.substr(colon + 1);
    }
    // IPv4 literals are DNS-name shaped, so one check covers both.
    if (!IsValidDnsName(host) || IsNumericHostAmbiguous(host)) return std::nullopt;
  }
  if (hasPort) {
    if (portText.empty() || portText.size() > 5) return std::nullopt;
    unsigned value = 0;
    for (char c : portText) {
      if (!IsDigit(c)) return std::nullopt;
      value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value < 1 || value > 65535) return std::nullopt;
    parts.port = static_cast<std::uint16_t>(value);
  }
  for (char c : host) parts.host.push_back(LowerASCII(c));

  if (const auto hash = tail.find('#'); hash != std::string_view::npos) {
    parts.fragment = std::string(tail.substr(hash + 1));
    tail = tail.substr(0, hash);
  }
  if (const auto question = tail.find('?'); question != std::string_view::npos) {
    parts.query = std::string(tail.substr(question + 1));
    tail = tail.substr(0, question);
  }
  parts.path = tail.empty() ? std::string("/") : std::string(tail);
  return parts;
}

bool IsValidURL(std::string_view url) { return ParseURL(url).has_value(); }

const std::optional<URLParts>& ParseURLOfThread(const kelcore::ImmutableString& url) {
  thread_local struct {
    kelcore::ImmutableString url;
    std::optional<URLParts> parts;
    bool parsed = false;
  } last;
  if (!last.parsed || !(last.url == url)) {
    last.url = url;
    last.parts = ParseURL(url.View());
    last.parsed = true;
  }
  return last.parts;
}

URL ReplaceInURL(std::string_view urlTemplate,
                 const std::map<kelcore::ImmutableString, kelcore::ImmutableString>& replacements) {
  std::vector<std::pair<std::string_view, std::string_view>> keys;
  keys.reserve(replacements.size());
  for (const auto& [key, value] : replacements) {
    if (!key.empty()) keys.emplace_back(key.View(), value.View());
  }
  std::stable_sort(keys.begin(), keys.end(),
                   [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });

  // One left-to-right pass: a value is never scanned again, so a token that happens to contain
  // ":domain" stays as it is.
  std::string out;
  out.reserve(urlTemplate.size() + 64);
  std::size_t i = 0;
  while (i < urlTemplate.size()) {
    bool replaced = false;
    for (const auto& [key, value] : keys) {
      if (urlTemplate.compare(i, key.size(), key) == 0) {
        out.append(value);
        i += key.size();
        replaced = true;
        break;
      }
    }
    if (!replaced) out.push_back(urlTemplate[i++]);
  }
  if (!IsValidURL(out)) return URL();
  return URL(kelcore::ImmutableString(out));
}

}  // namespace kelnet

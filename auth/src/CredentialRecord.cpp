#include "CredentialRecord.h"

#include <map>
#include <vector>

namespace ostriolib {

namespace {

constexpr std::string_view kBearerPrefix = "Bearer%20";

// A run of separators counts as one; leading or trailing separators leave an empty first or
// last part.
std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (;;) {
    const std::size_t at = text.find(separator, start);
    if (at == std::string_view::npos) {
      parts.push_back(text.substr(start));
      return parts;
    }
    parts.push_back(text.substr(start, at - start));
    start = text.find_first_not_of(separator, at);
    if (start == std::string_view::npos) {
      parts.emplace_back();
      return parts;
    }
  }
}

}  // namespace

std::string WriteCredentialRecord(const CredentialRecord& record) {
  std::string text;
  text.append("expires").append("=").append(record.expiresAt.View());
  text.append("&").append("refreshToken").append("=").append(record.refreshToken.View());
  text.append("&").append("token").append("=").append(kBearerPrefix).append(record.accessToken.View());
  text.append("&").append("userId").append("=").append(record.userId.View());
  return text;
}

bool ParseCredentialRecord(std::string_view text, CredentialRecord& record) {
  if (text.empty() || text.size() > kMaxCredentialRecordBytes) return false;
  std::map<std::string_view, std::string_view> items;
  for (std::string_view item : Split(text, '&')) {
    const auto parts = Split(item, '=');
    if (parts.size() != 2) continue;
    items.emplace(parts[0], parts[1]);  // keeps the first of repeated keys
  }
  auto expires = items.find("expires");
  if (expires == items.end()) return false;
  record.expiresAt = kelcore::ImmutableString(expires->second);
  auto refresh = items.find("refreshToken");
  if (refresh == items.end()) return false;
  record.refreshToken = kelcore::ImmutableString(refresh->second);
  auto token = items.find("token");
  if (token == items.end()) return false;
  record.accessToken = kelcore::ImmutableString(
      token->second.size() > kBearerPrefix.size() ? token->second.substr(kBearerPrefix.size()) : std::string_view());
  auto user = items.find("userId");
  if (user == items.end()) return false;
  record.userId = kelcore::ImmutableString(user->second);
  return true;
}

bool CredentialRecordCanCarry(std::string_view value) { return value.find_first_of("&=") == std::string_view::npos; }

}  // namespace ostriolib

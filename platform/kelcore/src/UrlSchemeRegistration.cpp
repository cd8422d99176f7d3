// The portable half of URL-scheme registration: what a scheme may be, on every system alike.

#include "kelcore/UrlSchemeRegistration.h"

namespace kelcore {

bool UrlSchemeRegistration::IsValidScheme(std::string_view scheme) {
  if (scheme.empty()) return false;
  auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (!isAlpha(scheme.front())) return false;
  for (char c : scheme) {
    if (!isAlpha(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

}  // namespace kelcore

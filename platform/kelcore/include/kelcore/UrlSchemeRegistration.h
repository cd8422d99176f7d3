#pragma once
// Makes this executable the current user's handler of a custom URL scheme, so the browser can hand
// a sign-in redirect ("myscheme://ostrio#...") back to the host.
//
// Linux: a desktop entry in $XDG_DATA_HOME/applications (~/.local/share/applications) with
// MimeType=x-scheme-handler/<scheme> and Exec="<executable>" %u, made the user's default handler
// of the scheme in $XDG_CONFIG_HOME/mimeapps.list (~/.config/mimeapps.list). Only those two files
// are written, each atomically; every other line of mimeapps.list is kept as it was.
// Windows: the per-user class keys under HKEY_CURRENT_USER\SOFTWARE\Classes\<scheme> (DefaultIcon,
// shell\open\command, the display name and "URL Protocol").

#include <filesystem>
#include <string>
#include <string_view>

#include "kelcore/ResultCodes.h"

namespace kelcore {

class UrlSchemeRegistration {
 public:
  struct Handler {
    std::string scheme;       // "ostrio-editor"; letters, digits, '+', '-', '.', starting with a letter
    std::string displayName;  // "URL: Ostrio Sign In Protocol"
    std::filesystem::path executable;  // empty: GetMainModulePath()
    // Linux: an icon-theme name or an absolute image path; empty: the executable's file name,
    // the name applications install their icon under. Windows: always the executable's own icon.
    std::string icon;
  };

  // 0 when the handler is registered (or already was, unchanged); kErrorInvalidArgument for a
  // scheme that is not a valid URL scheme or an executable path a desktop entry cannot carry;
  // kErrorFailed when a file or key could not be written.
  static Result Register(const Handler& handler);

  // RFC 3986: ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ).
  static bool IsValidScheme(std::string_view scheme);
  // The desktop entry's file name for the scheme ("<scheme>-url-handler.desktop", lower-case).
  static std::string DesktopFileName(std::string_view scheme);
  // The absolute path of the running executable.
  static std::filesystem::path GetMainModulePath();
};

}  // namespace kelcore

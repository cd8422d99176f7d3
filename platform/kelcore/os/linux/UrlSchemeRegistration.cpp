// URL-scheme registration on freedesktop systems: a desktop entry and the user's mimeapps.list.
//
// Nothing else is run or written (no update-desktop-database, no xdg-mime): desktop environments
// read mimeapps.list directly, and touching only our two files keeps the change easy to audit and
// to undo.

#include "kelcore/UrlSchemeRegistration.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "AtomicFile.h"
#include "XdgBaseDirectory.h"
#include "kelcore/Strings.h"

namespace kelcore {
namespace {

// A desktop-entry string value: the general escapes of the format (\\ \n \t \r).
std::string EscapeValue(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// One Exec argument, quoted: inside double quotes '"', '`', '$' and '\' take a backslash, '%' is
// doubled (field codes), and then the general string escape doubles every backslash again.
// Control characters cannot be carried at all.
bool QuoteExecArgument(std::string_view argument, std::string& out) {
  std::string quoted = "\"";
  for (char c : argument) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
    if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
    if (c == '%') quoted += '%';
    quoted += c;
  }
  quoted += '"';
  out = EscapeValue(quoted);
  return true;
}

bool ReadFile(const std::filesystem::path& path, std::string& contents, bool& exists) {
  std::error_code error;
  exists = std::filesystem::exists(path, error);
  if (error) return false;
  if (!exists) return true;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  if (in.bad()) return false;
  contents = buffer.str();
  return true;
}

std::string_view Trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

// Sets key=value in [Default Applications], keeping every other line as it is: an existing entry
// for the key is rewritten in place, else the entry goes after the section's last entry, else a
// new section is appended.
std::string WithDefaultApplication(const std::string& contents, const std::string& key, const std::string& value) {
  std::vector<std::string> lines;
  std::istringstream in(contents);
  for (std::string line; std::getline(in, line);) lines.push_back(line);

  const std::string entry = key + "=" + value;
  bool inSection = false;
  bool sectionFound = false;
  bool replaced = false;
  std::size_t insertAt = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string_view trimmed = Trim(lines[i]);
    if (!trimmed.empty() && trimmed.front() == '[') {
      inSection = !sectionFound && trimmed == "[Default Applications]";
      if (inSection) {
        sectionFound = true;
        insertAt = i + 1;
      }
      continue;
    }
    if (!inSection) continue;
    const auto equals = trimmed.find('=');
    if (equals != std::string_view::npos && Trim(trimmed.substr(0, equals)) == key) {
      lines[i] = entry;
      replaced = true;
    }
    if (!trimmed.empty()) insertAt = i + 1;
  }
  if (!replaced) {
    if (sectionFound) {
      lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(insertAt), entry);
    } else {
      if (!lines.empty() && !Trim(lines.back()).empty()) lines.emplace_back();
      lines.emplace_back("[Default Applications]");
      lines.push_back(entry);
    }
  }
  std::string out;
  for (const auto& line : lines) out += line + "\n";
  return out;
}

// Writes the file unless it already holds exactly these bytes. A symbolic link (a dotfile
// manager's, say) is followed, so the link itself survives.
bool Update(std::filesystem::path path, const std::string& contents, mode_t mode) {
  std::error_code error;
  if (std::filesystem::is_symlink(path, error)) {
    auto target = std::filesystem::canonical(path, error);
    if (error) return false;
    path = target;
  }
  std::string old;
  bool exists = false;
  if (!ReadFile(path, old, exists)) return false;
  if (exists && old == contents) return true;
  if (exists) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) mode = info.st_mode & 07777;
  }
  std::filesystem::create_directories(path.parent_path(), error);
  std::string reason;
  return linux_detail::WriteFileAtomically(path, contents, mode, reason);
}

}  // namespace

std::string UrlSchemeRegistration::DesktopFileName(std::string_view scheme) {
  return ToLowerUTF8(scheme) + "-url-handler.desktop";
}

std::filesystem::path UrlSchemeRegistration::GetMainModulePath() {
  std::error_code error;
  auto path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : path;
}

Result UrlSchemeRegistration::Register(const Handler& handler) {
  if (!IsValidScheme(handler.scheme)) return kErrorInvalidArgument;
  const std::filesystem::path executable = handler.executable.empty() ? GetMainModulePath() : handler.executable;
  std::string exec;
  if (executable.empty() || !QuoteExecArgument(executable.string(), exec)) return kErrorInvalidArgument;
  const std::string icon = handler.icon.empty() ? executable.filename().string() : handler.icon;
  const std::string scheme = ToLowerUTF8(handler.scheme);
  const std::string fileName = DesktopFileName(scheme);

  const std::string desktopEntry = "[Desktop Entry]\n"
                                   "Type=Application\n"
                                   "Name=" + EscapeValue(handler.displayName) + "\n"
                                   "Exec=" + exec + " %u\n"
                                   "Icon=" + EscapeValue(icon) + "\n"
                                   "MimeType=x-scheme-handler/" + scheme + ";\n"
                                   "NoDisplay=true\n"
                                   "Terminal=false\n";
  const auto applications = linux_detail::XdgBaseDirectory("XDG_DATA_HOME", ".local/share") / "applications";
  if (!Update(applications / fileName, desktopEntry, 0644)) return kErrorFailed;

  const auto mimeapps = linux_detail::XdgBaseDirectory("XDG_CONFIG_HOME", ".config") / "mimeapps.list";
  std::string contents;
  bool exists = false;
  if (!ReadFile(mimeapps, contents, exists)) return kErrorFailed;
  if (!Update(mimeapps, WithDefaultApplication(contents, "x-scheme-handler/" + scheme, fileName), 0644)) {
    return kErrorFailed;
  }
  return kResultOK;
}

}  // namespace kelcore

#include "ArgumentChecks.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "CliError.h"

namespace ostrio {

kelcore::utility::Guid ArgumentChecks::Id(const std::string& what, const std::string& text) {
  const auto parsed = kelcore::utility::Guid::TryParse(text);
  if (!parsed) {
    throw CliError::Usage(what + " must be an id like 0f8e6a52-3c1d-4b7a-9e2f-5d4c3b2a1908, not \"" + text + "\"");
  }
  return *parsed;
}

int ArgumentChecks::PageSize(const std::string& option, int value) {
  if (value < 1) throw CliError::Usage(option + " must be at least 1, not " + std::to_string(value));
  return value;
}

std::string ArgumentChecks::Cursor(const std::string& option, const std::string& text) {
  // Cursors are short opaque tokens; anything this long or with control characters is a paste gone wrong.
  constexpr std::size_t kMaxCursorBytes = 4096;
  bool printable = true;
  for (unsigned char c : text) printable = printable && c >= 0x20 && c != 0x7F;
  if (text.size() > kMaxCursorBytes || !printable) {
    throw CliError::Usage(option + " must be a cursor from an earlier page (printable, at most 4 KiB)");
  }
  return text;
}

std::filesystem::path ArgumentChecks::WritableFile(const std::string& text) {
  if (text.empty()) throw CliError::Usage("the output path is empty");
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(text, error);
  if (error) throw CliError::Usage("cannot use the output path " + text + ": " + error.message());
  if (std::filesystem::is_directory(path, error)) throw CliError::Usage("cannot write " + text + ": it is a folder");
  const std::filesystem::path folder = path.parent_path();
  if (!std::filesystem::is_directory(folder, error)) {
    throw CliError::Usage("cannot write " + text + ": the folder " + folder.string() + " does not exist");
  }
  if (::access(folder.c_str(), W_OK) != 0) {
    throw CliError::Usage("cannot write " + text + ": " + std::strerror(errno));
  }
  if (std::filesystem::exists(path, error) && ::access(path.c_str(), W_OK) != 0) {
    throw CliError::Usage("cannot write " + text + ": " + std::strerror(errno));
  }
  return path;
}

std::string ArgumentChecks::HttpUrl(const std::string& text) {
  const bool http = text.rfind("https://", 0) == 0 || text.rfind("http://", 0) == 0;
  bool clean = true;
  for (unsigned char c : text) clean = clean && c > 0x20 && c != 0x7F;
  if (!http || !clean || text.size() > 8192) {
    throw CliError::Usage("URL must be an http(s) address without blanks, not \"" + text + "\"");
  }
  return text;
}

}  // namespace ostrio

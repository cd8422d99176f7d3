// A debug-database file is whatever a developer (or an editor, or a mistake) left there. Every
// key a line defines must be found with the value of its last definition, the same file with
// CRLF line ends must read the same, and a line appended at the end must win.

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "kelcore/Configuration.h"

using kelcore::config::DebugDatabase;

namespace {

constexpr std::string_view kFallback = "\x01" "fallback";

std::string& FilePath() {
  static std::string path = [] {
    // In memory where there is a tmpfs: ext4 flushes a truncated and rewritten file on close,
    // which would cost more than the lookups under test.
    std::string name = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    name += "/ostriolib-debugdb-fuzz-XXXXXX";
    const int fd = ::mkstemp(name.data());
    FUZZ_CHECK(fd >= 0);
    ::close(fd);
    std::atexit([] { ::unlink(std::getenv("OSTRIOLIB_DEBUG_DB")); });
    ::setenv("OSTRIOLIB_DEBUG_DB", name.c_str(), 1);
    // Nothing from the user's own configuration folder may answer instead of the file.
    ::setenv("XDG_CONFIG_HOME", "/nonexistent-ostriolib-fuzz", 1);
    return name;
  }();
  return path;
}

void WriteFile(std::string_view contents) {
  const int fd = ::open(FilePath().c_str(), O_WRONLY | O_TRUNC);
  FUZZ_CHECK(fd >= 0);
  FUZZ_CHECK(::write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()));
  ::close(fd);
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return text;
}

// What each key should read, from the lines as a person reads them: the last definition wins.
std::map<std::string, std::string, std::less<>> Definitions(std::string_view contents) {
  if (contents.starts_with("\xEF\xBB\xBF")) contents.remove_prefix(3);
  std::map<std::string, std::string, std::less<>> found;
  while (!contents.empty()) {
    const auto end = contents.find('\n');
    const std::string_view line = Trim(contents.substr(0, end));
    contents.remove_prefix(end == std::string_view::npos ? contents.size() : end + 1);
    if (line.empty() || line.front() == '#') continue;
    const auto equals = line.find('=');
    if (equals != std::string_view::npos) found[std::string(Trim(line.substr(0, equals)))] = Trim(line.substr(equals + 1));
  }
  return found;
}

// Keys an environment variable could answer for (PATH, HOME...) or that a C string cannot name
// are not the file's to answer.
bool Askable(std::string_view key) {
  return key.find('\0') == std::string_view::npos &&
         std::getenv(DebugDatabase::EnvironmentNameForKey(key).c_str()) == nullptr;
}

std::string Read(std::string_view key) { return DebugDatabase::Instance().GetEntry(key, kFallback).ToStdString(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view contents(reinterpret_cast<const char*>(data), size);
  const auto expected = Definitions(contents);

  WriteFile(contents);
  for (const auto& [key, value] : expected) {
    if (Askable(key)) FUZZ_CHECK(Read(key) == value);
  }
  if (!expected.contains("ostriolib.fuzz.absent")) FUZZ_CHECK(Read("ostriolib.fuzz.absent") == kFallback);

  std::string crlf;
  for (char c : contents) {
    if (c == '\n') crlf += '\r';
    crlf += c;
  }
  WriteFile(crlf);
  for (const auto& [key, value] : expected) {
    if (Askable(key)) FUZZ_CHECK(Read(key) == value);
  }

  WriteFile(std::string(contents) + "\n ostriolib.fuzz.last = wins \n");
  FUZZ_CHECK(Read("ostriolib.fuzz.last") == "wins");
  return 0;
}

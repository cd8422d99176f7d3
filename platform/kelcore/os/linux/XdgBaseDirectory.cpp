#include "XdgBaseDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace kelcore::linux_detail {

namespace {

std::filesystem::path HomeDirectory() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir) {
    return found->pw_dir;
  }
  return "/";
}

}  // namespace

std::filesystem::path XdgBaseDirectory(const char* variable, const char* fallbackUnderHome) {
  const char* value = std::getenv(variable);
  if (value && *value && std::filesystem::path(value).is_absolute()) return value;
  return HomeDirectory() / fallbackUnderHome;
}

}  // namespace kelcore::linux_detail

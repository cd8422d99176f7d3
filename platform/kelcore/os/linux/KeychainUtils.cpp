// The user's name for the credential stores, from the passwd database.

#include "kelcore/KeychainUtils.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kelcore/Strings.h"

namespace kelcore {

std::u16string KeychainUtils::CurrentUserName() {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_name &&
      *found->pw_name) {
    return UTF8ToUTF16(found->pw_name);
  }
  for (const char* name : {"USER", "LOGNAME"}) {
    const char* value = std::getenv(name);
    if (value && *value) return UTF8ToUTF16(value);
  }
  return UTF8ToUTF16(std::to_string(::geteuid()));
}

}  // namespace kelcore

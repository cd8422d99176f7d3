#include "AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kelcore::linux_detail {

namespace {

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

bool WriteFileAtomically(const std::filesystem::path& path, std::string_view bytes, mode_t mode, std::string& reason) {
  const std::filesystem::path directory = path.has_parent_path() ? path.parent_path() : ".";
  std::string temporary = (directory / ("." + path.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);  // created 0600
  if (fd < 0) {
    reason = std::string("cannot create a temporary file: ") + std::strerror(errno);
    return false;
  }
  // The step that failed and the system's reason, taken while errno is still its own.
  auto fail = [&reason](const char* step) {
    reason = std::string(step) + ": " + std::strerror(errno);
    return false;
  };
  bool ok = (::fchmod(fd, mode) == 0 || fail("cannot set its mode")) && (WriteAll(fd, bytes) || fail("cannot write")) &&
            (::fsync(fd) == 0 || fail("cannot sync"));
  if (::close(fd) != 0 && ok) ok = fail("cannot close");
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) ok = fail("cannot rename into place");
  if (!ok) {
    ::unlink(temporary.c_str());
    return false;
  }
  const int dir = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

}  // namespace kelcore::linux_detail

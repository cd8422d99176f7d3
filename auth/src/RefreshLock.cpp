#include "RefreshLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "kelcore/Logging.h"

namespace ostriolib {

std::shared_ptr<RefreshLock> RefreshLock::Acquire(const std::filesystem::path& folder, bool wait, bool* busy) {
  if (busy) *busy = false;
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (!error) ::chmod(folder.c_str(), 0700);
  const std::filesystem::path file = folder / "refresh.lock";
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    kelcore::logging::LogWarning("ostriolib", "Token refresh not locked against other processes",
                                 {{"path", file.string()}, {"error", std::strerror(errno)}});
    return nullptr;
  }
  for (;;) {
    if (::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB)) == 0) return std::shared_ptr<RefreshLock>(new RefreshLock(fd));
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK) {
      if (busy) *busy = true;
    } else {
      kelcore::logging::LogWarning("ostriolib", "Token refresh not locked against other processes",
                                   {{"path", file.string()}, {"error", std::strerror(errno)}});
    }
    ::close(fd);
    return nullptr;
  }
}

RefreshLock::~RefreshLock() { ::close(fd_); }

}  // namespace ostriolib

// Extra CA bundles, read once per file version. Threads: any caller thread, many at once, as
// requests are prepared; the cache's mutex guards every entry (see CaBundleCache.h).

#include "CaBundleCache.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "kelcore/Logging.h"

namespace kelnet {

std::shared_ptr<const std::string> CaBundleCache::Get(const std::string& path, Clock::time_point now) {
  // A thread's requests mostly name the bundle its last one named: no lock for those.
  thread_local struct {
    const CaBundleCache* cache = nullptr;
    std::string path;
    std::shared_ptr<const std::string> pem;
    Clock::time_point checkedAt;
  } last;
  if (last.cache == this && last.pem && now - last.checkedAt < std::chrono::seconds(1) && last.path == path) {
    return last.pem;
  }
  auto remember = [&](std::shared_ptr<const std::string> pem) {
    last = {this, path, pem, now};
    return pem;
  };
  {
    // A file checked in the last second is taken as it was: a stat per request costs more than
    // the rest of the request's set-up.
    std::lock_guard lock(mutex_);
    auto it = entries_.find(path);
    if (it != entries_.end() && it->second.pem && now - it->second.checkedAt < std::chrono::seconds(1)) {
      // Checked by another thread in the last second: that check's time is what counts here too.
      last = {this, path, it->second.pem, it->second.checkedAt};
      return it->second.pem;
    }
  }
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    kelcore::logging::LogWarning("kelnet", "CA bundle not readable", {{"path", path}});
    return nullptr;
  }
  std::lock_guard lock(mutex_);
  auto& entry = entries_[path];
  if (entry.pem && entry.device == info.st_dev && entry.inode == info.st_ino && entry.size == info.st_size &&
      entry.mtime == info.st_mtim.tv_sec && entry.mtimeNs == info.st_mtim.tv_nsec) {
    entry.checkedAt = now;
    return remember(entry.pem);
  }
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in.good() && !in.eof()) {
    kelcore::logging::LogWarning("kelnet", "CA bundle not readable", {{"path", path}});
    return nullptr;
  }
  std::string pem = text.str();
  // curl's blob replaces its default CA file; the default CA directory stays in use. Where this
  // curl has no default directory, the system bundle travels in the blob as well.
  if (!systemBundle_.empty()) {
    std::ifstream system(systemBundle_, std::ios::binary);
    std::ostringstream systemText;
    systemText << system.rdbuf();
    pem += "\n";
    pem += systemText.str();
  }
  entry = Entry{std::make_shared<const std::string>(std::move(pem)), info.st_dev, info.st_ino, info.st_size,
                info.st_mtim.tv_sec, info.st_mtim.tv_nsec, now};
  return remember(entry.pem);
}

void CaBundleCache::SetSystemBundle(std::string path) {
  std::lock_guard lock(mutex_);
  systemBundle_ = std::move(path);
}

}  // namespace kelnet

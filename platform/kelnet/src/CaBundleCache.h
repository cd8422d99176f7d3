#pragma once
// The extra CA bundles requests name (Configuration::caBundlePath), read once per file version.
//
// Threads: Get runs on the caller's thread as a request is prepared, from any number of threads
// at once; one mutex guards the entries (held while a changed file is read again, which is
// rare). The blob is handed to curl without copying, so each request keeps its
// bundle alive (the shared_ptr) for as long as its easy handle may look at it.

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kelnet {

class CaBundleCache {
 public:
  // The PEM text to trust for this path (the system bundle appended when curl has no CA
  // directory of its own); null, with a warning, when the file cannot be read.
  // now: the caller's reading of the clock, which decides whether the file is looked at again.
  std::shared_ptr<const std::string> Get(const std::string& path, std::chrono::steady_clock::time_point now);
  // The file curl would use by default, when curl has no default CA directory.
  void SetSystemBundle(std::string path);

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    std::shared_ptr<const std::string> pem;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    time_t mtime = 0;
    long mtimeNs = 0;
    Clock::time_point checkedAt;
  };
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
  std::string systemBundle_;
};

}  // namespace kelnet

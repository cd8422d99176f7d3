// The file store: one file per service/account, for machines without a Secret Service.
//
// The folder is 0700 and each file 0600, written atomically, so a crash leaves either the old
// secret or the new one, never half of either. A file that group or others can read is refused:
// its secret may have leaked, and using it would hide that.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "KeychainBackend.h"
#include "AtomicFile.h"
#include "kelcore/Strings.h"

namespace kelcore {
namespace {

constexpr std::size_t kMaxFileName = 255;

// Letters, digits, '-', '_' and '.' stay (except a leading '.'); every other byte of the UTF-8
// text becomes %XX. '@' is always escaped, so it can separate service from account, and no
// entry starts with '.', the mark of our temporary files.
std::string EscapeComponent(std::string_view text) {
  static const char* const kHex = "0123456789ABCDEF";
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
                       byte == '-' || byte == '_' || (byte == '.' && i > 0);
    if (plain) {
      out += static_cast<char>(byte);
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
  return out;
}

std::string FileNameFor(const std::u16string& service, const std::u16string& account) {
  return EscapeComponent(UTF16ToUTF8(service)) + "@" + EscapeComponent(UTF16ToUTF8(account));
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const noexcept { return fd_; }

 private:
  int fd_;
};

// Makes the folder and any missing parents; the last one is ours alone.
bool EnsurePrivateDirectory(const std::filesystem::path& directory) {
  std::error_code error;
  if (directory.has_parent_path()) std::filesystem::create_directories(directory.parent_path(), error);
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) return false;
  struct stat info {};
  if (::lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) return false;
  if ((info.st_mode & 077) != 0 && ::chmod(directory.c_str(), 0700) != 0) return false;
  return true;
}

void SyncDirectory(const std::filesystem::path& directory) {
  FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
}

class FileKeychain final : public keychain_detail::KeychainBackend<FileKeychain> {
 public:
  explicit FileKeychain(std::filesystem::path directory) : directory_(std::move(directory)) {}

  Result AddPassword(const std::u16string& service, const std::u16string& account, const std::u16string& secret,
                     bool persistent) override {
    std::lock_guard lock(mutex_);
    if (!persistent) {
      sessionSecrets_[{service, account}] = secret;
      return kResultOK;
    }
    const std::string name = FileNameFor(service, account);
    if (name.size() + 8 > kMaxFileName) return kErrorInvalidArgument;
    if (!EnsurePrivateDirectory(directory_)) {
      keychain_detail::Warn("Credential file store: cannot create a private folder at " + directory_.string());
      return kErrorFailed;
    }
    if (!linux_detail::WriteFileAtomically(directory_ / name, UTF16ToUTF8(secret), 0600)) return kErrorFailed;
    return kResultOK;
  }

  std::u16string GetPassword(const std::u16string& service, const std::u16string& account,
                             bool persistent) override {
    std::lock_guard lock(mutex_);
    if (!persistent) {
      auto found = sessionSecrets_.find({service, account});
      return found == sessionSecrets_.end() ? std::u16string() : found->second;
    }
    const std::filesystem::path path = directory_ / FileNameFor(service, account);
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) return {};
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
    if (info.st_uid != ::geteuid() || (info.st_mode & 077) != 0) {
      keychain_detail::Warn("Credential file store: refusing " + path.string() +
                            ", which is not private to its owner (expected mode 0600)");
      return {};
    }
    std::string bytes;
    char buffer[4096];
    for (;;) {
      const ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
      if (got < 0) {
        if (errno == EINTR) continue;
        return {};
      }
      if (got == 0) break;
      bytes.append(buffer, static_cast<std::size_t>(got));
    }
    return UTF8ToUTF16(bytes);
  }

  bool RemovePassword(const std::u16string& service, const std::u16string& account, bool persistent) override {
    std::lock_guard lock(mutex_);
    if (!persistent) return sessionSecrets_.erase({service, account}) > 0;
    if (::unlink((directory_ / FileNameFor(service, account)).c_str()) != 0) return false;
    SyncDirectory(directory_);
    return true;
  }

 private:
  const std::filesystem::path directory_;
  std::mutex mutex_;  // one writer at a time inside the process; rename keeps other processes safe
  std::map<std::tuple<std::u16string, std::u16string>, std::u16string> sessionSecrets_;
};

}  // namespace

classref::InterfaceRef<IKeychainUtils> KeychainUtils::CreateFileKeychain(std::filesystem::path directory) {
  return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<FileKeychain>(std::move(directory)));
}

}  // namespace kelcore

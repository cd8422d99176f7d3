// The file store: one file per service/account, for machines without a Secret Service.
//
// The folder is 0700 and each file 0600, written atomically, so a crash or a full disk leaves
// either the old secret or the new one, never half of either. A file that group or others can
// read is refused: its secret may have leaked, and using it would hide that. The folder itself
// must be a real folder of ours (not a link, not another user's) for reads, writes and removals
// alike: a store that could read and remove but not write would lose every record it replaced.
// Secrets are small: a file beyond kMaxSecretBytes is not one of ours and is not read.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
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
constexpr std::size_t kMaxSecretBytes = 64 * 1024;

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

constexpr std::string_view kMissingFolder = "it does not exist";

// Whether the folder is a real folder (not a link) owned by us; the reason when not.
bool IsOwnDirectory(const std::filesystem::path& directory, struct stat& info, std::string& reason) {
  if (::lstat(directory.c_str(), &info) != 0) {
    reason = errno == ENOENT ? std::string(kMissingFolder) : std::string(std::strerror(errno));
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    reason = S_ISLNK(info.st_mode) ? "it is a symbolic link" : "it is not a folder";
    return false;
  }
  if (info.st_uid != ::geteuid()) {
    reason = "it belongs to another user";
    return false;
  }
  return true;
}

// Makes the folder and any missing parents; the last one is ours alone.
bool EnsurePrivateDirectory(const std::filesystem::path& directory, std::string& reason) {
  std::error_code error;
  if (directory.has_parent_path()) std::filesystem::create_directories(directory.parent_path(), error);
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    reason = std::strerror(errno);
    return false;
  }
  struct stat info {};
  if (!IsOwnDirectory(directory, info, reason)) return false;
  if ((info.st_mode & 077) != 0 && ::chmod(directory.c_str(), 0700) != 0) {
    reason = std::strerror(errno);
    return false;
  }
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
    const std::string bytes = UTF16ToUTF8(secret);
    if (name.size() + 8 > kMaxFileName || bytes.size() > kMaxSecretBytes) {
      keychain_detail::Warn("Credential file store: not storing a secret: its name or its size is beyond bounds");
      return kErrorInvalidArgument;
    }
    std::string reason;
    if (!EnsurePrivateDirectory(directory_, reason)) {
      keychain_detail::Warn("Credential file store: not storing a secret: no private folder at " +
                            directory_.string() + " (" + reason + ")");
      return kErrorFailed;
    }
    if (!linux_detail::WriteFileAtomically(directory_ / name, bytes, 0600, reason)) {
      keychain_detail::Warn("Credential file store: storing a secret failed, the old one is kept (" + reason + ")");
      return kErrorFailed;
    }
    return kResultOK;
  }

  std::u16string GetPassword(const std::u16string& service, const std::u16string& account,
                             bool persistent) override {
    std::lock_guard lock(mutex_);
    if (!persistent) {
      auto found = sessionSecrets_.find({service, account});
      return found == sessionSecrets_.end() ? std::u16string() : found->second;
    }
    if (!UsableDirectory("reading")) return {};
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
    if (static_cast<std::size_t>(info.st_size) > kMaxSecretBytes) {
      keychain_detail::Warn("Credential file store: refusing " + path.string() + ", which is larger than " +
                            std::to_string(kMaxSecretBytes) + " bytes");
      return {};
    }
    // Read up to the bound only, should the file grow after the size check.
    std::string bytes(kMaxSecretBytes + 1, '\0');
    std::size_t got = 0;
    while (got < bytes.size()) {
      const ssize_t read = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
      if (read < 0 && errno == EINTR) continue;
      if (read < 0) return {};
      if (read == 0) break;
      got += static_cast<std::size_t>(read);
    }
    if (got > kMaxSecretBytes) return {};
    bytes.resize(got);
    return UTF8ToUTF16(bytes);
  }

  bool RemovePassword(const std::u16string& service, const std::u16string& account, bool persistent) override {
    std::lock_guard lock(mutex_);
    if (!persistent) return sessionSecrets_.erase({service, account}) > 0;
    if (!UsableDirectory("removing")) return false;
    if (::unlink((directory_ / FileNameFor(service, account)).c_str()) != 0) return false;
    SyncDirectory(directory_);
    return true;
  }

 private:
  // Reads and removals go only through a folder a write would accept. A missing folder is no
  // error: nothing is stored yet.
  bool UsableDirectory(std::string_view action) const {
    struct stat info {};
    std::string reason;
    if (IsOwnDirectory(directory_, info, reason)) return true;
    if (reason != kMissingFolder) {
      keychain_detail::Warn("Credential file store: not " + std::string(action) + " a secret: the folder " +
                            directory_.string() + " is not usable (" + reason + ")");
    }
    return false;
  }

  const std::filesystem::path directory_;
  std::mutex mutex_;  // one writer at a time inside the process; rename keeps other processes safe
  std::map<std::tuple<std::u16string, std::u16string>, std::u16string> sessionSecrets_;
};

}  // namespace

classref::InterfaceRef<IKeychainUtils> KeychainUtils::CreateFileKeychain(std::filesystem::path directory) {
  return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<FileKeychain>(std::move(directory)));
}

}  // namespace kelcore

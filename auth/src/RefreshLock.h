#pragma once
// A per-user lock beside the credential store, held across one token refresh.
//
// The service rotates refresh tokens: of two processes of one user that refresh the same stored
// token, the second is refused, and a refusal signs the user out. Whoever holds this lock
// refreshes; whoever takes it next re-reads the store first and finds the new token there. An
// advisory flock on a 0600 file in the user's 0700 state folder: released by the kernel when the
// holder exits, however it exits.

#include <filesystem>
#include <memory>

namespace ostriolib {

class RefreshLock {
 public:
  // The lock, waited for when `wait`; null when another process holds it and `wait` is false
  // (`busy` then says so) or when the folder or file cannot be used (a warning says why; the
  // refresh then goes ahead unlocked, as it did before there was a lock).
  static std::shared_ptr<RefreshLock> Acquire(const std::filesystem::path& folder, bool wait, bool* busy = nullptr);
  ~RefreshLock();
  RefreshLock(const RefreshLock&) = delete;
  RefreshLock& operator=(const RefreshLock&) = delete;

 private:
  explicit RefreshLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace ostriolib

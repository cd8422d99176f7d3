// The memory store: secrets live as long as the store object, nothing touches the disk.

#include <map>
#include <mutex>
#include <tuple>

#include "KeychainBackend.h"

namespace kelcore {
namespace {

class MemoryKeychain final : public keychain_detail::KeychainBackend<MemoryKeychain> {
 public:
  Result AddPassword(const std::u16string& service, const std::u16string& account, const std::u16string& secret,
                     bool persistent) override {
    std::lock_guard lock(mutex_);
    secrets_[{service, account, persistent}] = secret;
    return kResultOK;
  }

  std::u16string GetPassword(const std::u16string& service, const std::u16string& account,
                             bool persistent) override {
    std::lock_guard lock(mutex_);
    auto found = secrets_.find({service, account, persistent});
    return found == secrets_.end() ? std::u16string() : found->second;
  }

  bool RemovePassword(const std::u16string& service, const std::u16string& account, bool persistent) override {
    std::lock_guard lock(mutex_);
    return secrets_.erase({service, account, persistent}) > 0;
  }

 private:
  std::mutex mutex_;
  std::map<std::tuple<std::u16string, std::u16string, bool>, std::u16string> secrets_;
};

}  // namespace

classref::InterfaceRef<IKeychainUtils> KeychainUtils::CreateMemoryKeychain() {
  return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<MemoryKeychain>());
}

}  // namespace kelcore

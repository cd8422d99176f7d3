// Picks the credential store: the portable half of KeychainUtils. The OS backends supply the
// stores themselves and the user's name.

#include "kelcore/KeychainUtils.h"

#include <mutex>
#include <string>
#include <utility>

#include "KeychainBackend.h"
#include "kelcore/Logging.h"
#include "kelcore/Strings.h"

namespace kelcore {

namespace {

// Asked for explicitly but not there: every operation fails rather than quietly putting the
// secret somewhere the user did not choose.
class UnavailableKeychain final : public keychain_detail::KeychainBackend<UnavailableKeychain> {
 public:
  Result AddPassword(const std::u16string&, const std::u16string&, const std::u16string&, bool) override {
    return kErrorFailed;
  }
  std::u16string GetPassword(const std::u16string&, const std::u16string&, bool) override { return {}; }
  bool RemovePassword(const std::u16string&, const std::u16string&, bool) override { return false; }
};

classref::InterfaceRef<IKeychainUtils> ChooseStore(KeychainChoice choice, const std::filesystem::path& directory) {
  std::string reason;
  auto secretService =
      keychain_detail::OpenSecretService(std::chrono::seconds(5), std::chrono::seconds(30), reason);
  if (secretService) return secretService;
  if (choice == KeychainChoice::kSecretService) {
    keychain_detail::Warn("Credential store: the Secret Service was asked for but is not usable (" + reason +
                          "); credentials will not be kept");
    return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<UnavailableKeychain>());
  }
  keychain_detail::Warn("Credential store: no usable Secret Service (" + reason +
                        "); keeping credentials in the file store at " + directory.string());
  return KeychainUtils::CreateFileKeychain(directory);
}

// Chooses on first use, so that obtaining the store costs nothing and a host that never signs
// in never talks to D-Bus.
class DeferredKeychain final : public keychain_detail::KeychainBackend<DeferredKeychain> {
 public:
  DeferredKeychain(KeychainChoice choice, std::filesystem::path directory)
      : choice_(choice), directory_(std::move(directory)) {}

  Result AddPassword(const std::u16string& service, const std::u16string& account, const std::u16string& secret,
                     bool persistent) override {
    return Store()->AddPassword(service, account, secret, persistent);
  }
  std::u16string GetPassword(const std::u16string& service, const std::u16string& account,
                             bool persistent) override {
    return Store()->GetPassword(service, account, persistent);
  }
  bool RemovePassword(const std::u16string& service, const std::u16string& account, bool persistent) override {
    return Store()->RemovePassword(service, account, persistent);
  }

 private:
  const classref::InterfaceRef<IKeychainUtils>& Store() {
    std::call_once(chosen_, [this] { store_ = ChooseStore(choice_, directory_); });
    return store_;
  }

  const KeychainChoice choice_;
  const std::filesystem::path directory_;
  std::once_flag chosen_;
  classref::InterfaceRef<IKeychainUtils> store_;
};

}  // namespace

std::optional<KeychainChoice> KeychainUtils::ParseKeychainChoice(std::string_view text) {
  const std::string name = ToLowerUTF8(text);
  if (name == "auto") return KeychainChoice::kAuto;
  if (name == "secret-service") return KeychainChoice::kSecretService;
  if (name == "file") return KeychainChoice::kFile;
  if (name == "memory") return KeychainChoice::kMemory;
  return std::nullopt;
}

classref::InterfaceRef<IKeychainUtils> KeychainUtils::GetKeychainUtils(KeychainChoice choice,
                                                                       std::filesystem::path fileStoreDirectory) {
  switch (choice) {
    case KeychainChoice::kMemory:
      return CreateMemoryKeychain();
    case KeychainChoice::kFile:
      return CreateFileKeychain(std::move(fileStoreDirectory));
    case KeychainChoice::kAuto:
    case KeychainChoice::kSecretService:
      break;
  }
  return classref::InterfaceRef<IKeychainUtils>(
      classref::AllocateClassInstance<DeferredKeychain>(choice, std::move(fileStoreDirectory)));
}

void keychain_detail::Warn(std::string_view text) { logging::LogWarning("kelcore", std::string(text)); }

}  // namespace kelcore

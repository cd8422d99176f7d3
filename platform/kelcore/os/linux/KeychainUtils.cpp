// Picks the credential store and names the user.

#include "kelcore/KeychainUtils.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "../../src/KeychainBackend.h"
#include "kelcore/Configuration.h"
#include "kelcore/Strings.h"

namespace kelcore {

namespace keychain_detail {
classref::InterfaceRef<IKeychainUtils> OpenSecretService(std::chrono::milliseconds timeout,
                                                         std::chrono::milliseconds unlockTimeout, std::string& reason);
}

namespace {

std::string EnvironmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

std::filesystem::path HomeDirectory() {
  std::string home = EnvironmentValue("HOME");
  if (!home.empty()) return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir) {
    return found->pw_dir;
  }
  return "/";
}

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

classref::InterfaceRef<IKeychainUtils> ChooseStore() {
  const std::string mode =
      ToLowerUTF8(config::DebugDatabase::Instance().GetEntry("ostriolib.keychain", "auto").View());
  if (mode == "memory") return KeychainUtils::CreateMemoryKeychain();
  const std::filesystem::path directory = KeychainUtils::DefaultFileStoreDirectory();
  if (mode == "file") return KeychainUtils::CreateFileKeychain(directory);

  std::string reason;
  auto secretService =
      keychain_detail::OpenSecretService(std::chrono::seconds(5), std::chrono::seconds(30), reason);
  if (secretService) return secretService;
  if (mode == "secret-service") {
    keychain_detail::Warn("Credential store: the Secret Service was asked for but is not usable (" + reason +
                          "); credentials will not be kept");
    return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<UnavailableKeychain>());
  }
  if (mode != "auto") {
    keychain_detail::Warn("Credential store: unknown ostriolib.keychain value \"" + mode + "\", using auto");
  }
  keychain_detail::Warn("Credential store: no usable Secret Service (" + reason +
                        "); keeping credentials in the file store at " + directory.string());
  return KeychainUtils::CreateFileKeychain(directory);
}

// Chooses on first use, so that obtaining the store costs nothing and a host that never signs
// in never talks to D-Bus.
class AutoKeychain final : public keychain_detail::KeychainBackend<AutoKeychain> {
 public:
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
    std::call_once(chosen_, [this] { store_ = ChooseStore(); });
    return store_;
  }

  std::once_flag chosen_;
  classref::InterfaceRef<IKeychainUtils> store_;
};

}  // namespace

classref::InterfaceRef<IKeychainUtils> KeychainUtils::GetKeychainUtils() {
  return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<AutoKeychain>());
}

std::filesystem::path KeychainUtils::DefaultFileStoreDirectory() {
  std::filesystem::path state(config::DebugDatabase::Instance().GetEntry("ostriolib.statedir", "").ToStdString());
  if (state.empty()) {
    // XDG: a relative XDG_STATE_HOME is invalid and must be ignored.
    const std::filesystem::path xdg(EnvironmentValue("XDG_STATE_HOME"));
    state = (xdg.is_absolute() ? xdg : HomeDirectory() / ".local" / "state") / "ostriolib";
  }
  return state / "credentials";
}

std::u16string KeychainUtils::CurrentUserName() {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_name &&
      *found->pw_name) {
    return UTF8ToUTF16(found->pw_name);
  }
  for (const char* name : {"USER", "LOGNAME"}) {
    const std::string value = EnvironmentValue(name);
    if (!value.empty()) return UTF8ToUTF16(value);
  }
  return UTF8ToUTF16(std::to_string(::geteuid()));
}

}  // namespace kelcore

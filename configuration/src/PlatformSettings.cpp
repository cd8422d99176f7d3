#include "PlatformSettings.h"

#include <string_view>

#include "kelcore/Configuration.h"
#include "kelcore/File.h"
#include "kelcore/Logging.h"

namespace ostriolib {

namespace {

constexpr std::string_view kCaBundleKey = "ostriolib.cabundle";
constexpr std::string_view kBrowserKey = "ostriolib.browser";
constexpr std::string_view kKeychainKey = "ostriolib.keychain";
constexpr std::string_view kStateDirectoryKey = "ostriolib.statedir";

std::string Entry(std::string_view key, std::string_view fallback = {}) {
  return kelcore::config::DebugDatabase::Instance().GetEntry(key, fallback).ToStdString();
}

}  // namespace

std::string PlatformSettings::CaBundlePath() { return Entry(kCaBundleKey); }

std::string PlatformSettings::BrowserCommand() { return Entry(kBrowserKey); }

kelcore::KeychainChoice PlatformSettings::KeychainChoice() {
  const std::string text = Entry(kKeychainKey, "auto");
  if (auto choice = kelcore::KeychainUtils::ParseKeychainChoice(text)) return *choice;
  kelcore::logging::LogWarning("ostriolib", "Credential store: unknown ostriolib.keychain value, using auto",
                               {{"value", text}});
  return kelcore::KeychainChoice::kAuto;
}

std::filesystem::path PlatformSettings::StateDirectory() {
  std::filesystem::path state = Entry(kStateDirectoryKey);
  if (state.empty()) state = kelcore::filesupport::File::UserStateDirectory() / "ostriolib";
  return state;
}

std::filesystem::path PlatformSettings::CredentialStoreDirectory() { return StateDirectory() / "credentials"; }

kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> PlatformSettings::CreateKeychain() {
  return kelcore::KeychainUtils::GetKeychainUtils(KeychainChoice(), CredentialStoreDirectory());
}

kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper> PlatformSettings::CreateUrlOpener() {
  const std::string command = BrowserCommand();
  return command.empty() ? kelcore::OSUtilsWrapper::GetOSUtilsWrapper()
                         : kelcore::OSUtilsWrapper::CreateCommandOpener(command);
}

}  // namespace ostriolib

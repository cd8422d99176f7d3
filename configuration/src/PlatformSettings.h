#pragma once
// The library's settings for the platform pieces it stands on, read from the debug database on
// each call and handed down through the platform's seams: the platform itself knows no key of
// ours.
//
//   "ostriolib.cabundle"  extra CA bundle (PEM) to trust           default: none (system store only)
//   "ostriolib.browser"   command that opens a URL                 default: the desktop's opener
//   "ostriolib.keychain"  auto | secret-service | file | memory    default: auto
//   "ostriolib.statedir"  folder of the file credential store      default: $XDG_STATE_HOME/ostriolib

#include <filesystem>
#include <string>

#include "kelcore/ClassRef.h"
#include "kelcore/KeychainUtils.h"
#include "kelcore/OSUtilsWrapper.h"

namespace ostriolib {

class PlatformSettings {
 public:
  // Empty when none is set.
  static std::string CaBundlePath();
  // Empty when none is set.
  static std::string BrowserCommand();
  // An unknown value counts as auto, with a warning naming it.
  static kelcore::KeychainChoice KeychainChoice();
  static std::filesystem::path StateDirectory();
  // "credentials" under the state folder.
  static std::filesystem::path CredentialStoreDirectory();

  // The credential store and the URL opener these settings name.
  static kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> CreateKeychain();
  static kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper> CreateUrlOpener();
};

}  // namespace ostriolib

// The library's settings for the platform: each key's default and override, and the pieces they
// build.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "LogCapture.h"
#include "PlatformSettings.h"
#include "ScratchFolders.h"

namespace ostriolib {
using kelcore::KeychainChoice;

TEST(PlatformSettings, EachKeyOverridesItsDefault) {
  TemporaryDirectory root;
  const std::string state = (root.Path() / "xdg-state").string();
  const std::string home = (root.Path() / "home").string();
  struct Case {
    std::optional<std::string> xdgState, stateDir, keychain;
    std::filesystem::path credentials;
    KeychainChoice choice;
    bool warned;
  };
  const Case cases[] = {
      {state, std::nullopt, std::nullopt, state + "/ostriolib/credentials", KeychainChoice::kAuto, false},
      // A relative XDG_STATE_HOME is invalid: the home folder's default is used.
      {"relative/state", std::nullopt, "FILE", home + "/.local/state/ostriolib/credentials", KeychainChoice::kFile,
       false},
      {state, "/srv/ostrio", "secret-service", "/srv/ostrio/credentials", KeychainChoice::kSecretService, false},
      {state, std::nullopt, "keyring", state + "/ostriolib/credentials", KeychainChoice::kAuto, true},
  };
  for (const auto& c : cases) {
    ScopedEnvironment environment{{"OSTRIOLIB_DEBUG_DB", "/dev/null"}, {"HOME", home}, {"XDG_STATE_HOME", c.xdgState},
                                  {"OSTRIOLIB_STATEDIR", c.stateDir}, {"OSTRIOLIB_KEYCHAIN", c.keychain}};
    LogCapture log;
    EXPECT_EQ(PlatformSettings::CredentialStoreDirectory(), c.credentials);
    EXPECT_EQ(PlatformSettings::KeychainChoice(), c.choice);
    EXPECT_EQ(log.AllText().find("keyring") != std::string::npos, c.warned) << log.AllText();
  }
}

}  // namespace ostriolib

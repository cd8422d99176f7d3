// The library's settings for the platform: each key's default and override, and the pieces they
// build.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "LogCapture.h"
#include "PlatformSettings.h"
#include "ScratchFolders.h"

namespace ostriolib {
namespace {

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

TEST(PlatformSettings, TheStoreAndTheOpenerFollowTheSettings) {
  TemporaryDirectory root;
  const auto seen = root.Path() / "seen";
  ScopedEnvironment environment{{"OSTRIOLIB_DEBUG_DB", "/dev/null"},
                                {"OSTRIOLIB_KEYCHAIN", "file"},
                                {"OSTRIOLIB_STATEDIR", root.Path().string()},
                                {"OSTRIOLIB_BROWSER", "sh -c 'printf %s \"$1\" > " + seen.string() + "' opener"}};
  ASSERT_EQ(PlatformSettings::CreateKeychain()->AddPassword(u"svc", u"acct", u"secret", true), 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.Path() / "credentials"), {}), 1);

  ASSERT_TRUE(PlatformSettings::CreateUrlOpener()->OpenURL("https://x.test/a?b"));
  std::ifstream in(seen);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "https://x.test/a?b");
}

}  // namespace
}  // namespace ostriolib

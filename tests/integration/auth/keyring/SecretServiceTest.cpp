// The auth manager against a real Secret Service (GNOME Keyring in a private session: run
// through with-secret-service.sh): the store it chooses keeps its record there, not in files,
// and a new process signs in from it.

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "OstrioAuthManager.h"
#include "PlatformSettings.h"
#include "RecordingOSUtilsWrapper.h"
#include "ScratchFolders.h"

namespace ostriolib {
namespace {

using kelcore::classref::AllocateClassInstance;

TEST(SecretService, TheAuthManagerKeepsItsRecordThereAndNotInFiles) {
  TemporaryDirectory state;
  ScopedEnvironment environment{{"OSTRIOLIB_KEYCHAIN", "auto"}, {"OSTRIOLIB_STATEDIR", state.Path().string()}};
  auto manager = AllocateClassInstance<OstrioAuthManager>(
      PlatformSettings::CreateKeychain(),
      kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>(std::make_shared<RecordingOSUtilsWrapper>()));
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "");
  const std::string url = "ostrio-test://ostrio#expires=4102444800&refreshToken=rt-1&token=Bearer%20tok&userId=u-1";
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  EXPECT_EQ(RunChildProcess("SecretServiceChild.*"), 0);
  EXPECT_FALSE(std::filesystem::exists(state.Path() / "credentials"));
  EXPECT_FALSE(AllocateClassInstance<OstrioAuthManager>()->IsUserSignedIn());  // the child signed out
}

TEST(SecretServiceChild, DISABLED_SignsInFromWhatTheParentStored) {
  auto manager = AllocateClassInstance<OstrioAuthManager>();
  ASSERT_EQ(manager->LoadCredentials(), 0);
  EXPECT_EQ(manager->GetAccessToken().View(), "tok");
  EXPECT_EQ(manager->GetRefreshToken().View(), "rt-1");
  EXPECT_EQ(manager->Logout(), 0);
}

}  // namespace
}  // namespace ostriolib

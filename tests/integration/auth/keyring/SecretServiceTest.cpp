// Against a real Secret Service (GNOME Keyring in a private session: run through
// with-secret-service.sh). What one process stores, a new process reads back; then it is cleared.

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "OstrioAuthManager.h"
#include "PlatformSettings.h"
#include "RecordingOSUtilsWrapper.h"
#include "ScratchFolders.h"

namespace ostriolib {
namespace {

using kelcore::KeychainUtils;
using kelcore::classref::AllocateClassInstance;

constexpr char16_t kService[] = u"com.corvane.ostrio.keyring-test";
constexpr char16_t kAccount[] = u"credentials_tester";
const std::u16string kSecret = u"s3cr\u00e9t \u2713 & = %";

// What the child half is to find: "stored", "cleared" or "record".
int RunChild(const std::string& expect) {
  return RunChildProcess("SecretServiceChild.*", {"OSTRIO_KEYRING_EXPECT=" + expect});
}

TEST(SecretService, WhatOneProcessStoresANewProcessReadsBack) {
  auto store = KeychainUtils::CreateSecretServiceKeychain();
  ASSERT_TRUE(store) << "no usable Secret Service: run this through with-secret-service.sh";
  ASSERT_EQ(store->AddPassword(kService, kAccount, u"replaced", true), 0);
  ASSERT_EQ(store->AddPassword(kService, kAccount, kSecret, true), 0);
  ASSERT_EQ(store->AddPassword(kService, kAccount, u"for this session", false), 0);
  EXPECT_EQ(RunChild("stored"), 0);
  EXPECT_TRUE(store->RemovePassword(kService, kAccount, true));
  EXPECT_TRUE(store->RemovePassword(kService, kAccount, false));
  EXPECT_FALSE(store->RemovePassword(kService, kAccount, true));
  EXPECT_EQ(RunChild("cleared"), 0);
}

TEST(SecretService, TheAuthManagerKeepsItsRecordThereAndNotInFiles) {
  TemporaryDirectory state;
  ScopedEnvironment environment{{"OSTRIOLIB_KEYCHAIN", "auto"}, {"OSTRIOLIB_STATEDIR", state.Path().string()}};
  auto manager = AllocateClassInstance<OstrioAuthManager>(
      PlatformSettings::CreateKeychain(),
      kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>(std::make_shared<RecordingOSUtilsWrapper>()));
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "");
  const std::string record = "expires=4102444800&refreshToken=rt-1&token=Bearer%20tok&userId=u-1";
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str("ostrio-test://ostrio#" + record)), 0);
  EXPECT_EQ(RunChild("record"), 0);
  EXPECT_FALSE(std::filesystem::exists(state.Path() / "credentials"));
  EXPECT_FALSE(AllocateClassInstance<OstrioAuthManager>()->IsUserSignedIn());  // the child signed out
}

// Kept last: it leaves the login collection locked. A locked item answers a lookup with "nothing"
// and no error, just like a missing one: the store says so in a warning, and a collection that
// cannot be unlocked (no prompt without a display) is not chosen at all.
TEST(SecretService, ALockedCollectionReadsAsEmptyWithAWarningAndIsNotChosen) {
  auto store = KeychainUtils::CreateSecretServiceKeychain();
  ASSERT_TRUE(store);
  ASSERT_EQ(store->AddPassword(kService, kAccount, kSecret, true), 0);
  ASSERT_EQ(std::system("gdbus call --session --dest org.freedesktop.secrets --object-path /org/freedesktop/secrets "
                        "--method org.freedesktop.Secret.Service.Lock "
                        "\"['/org/freedesktop/secrets/collection/login']\" >/dev/null"),
            0);
  LogCapture log;
  EXPECT_EQ(store->GetPassword(kService, kAccount, true), u"");
  EXPECT_NE(log.AllText().find("is locked"), std::string::npos) << log.AllText();
  EXPECT_FALSE(KeychainUtils::CreateSecretServiceKeychain(std::chrono::seconds(5), std::chrono::seconds(10)));
}

TEST(SecretServiceChild, DISABLED_SeesWhatTheParentLeft) {
  const char* expect = std::getenv("OSTRIO_KEYRING_EXPECT");
  ASSERT_TRUE(expect);
  if (std::string_view(expect) == "record") {
    auto manager = AllocateClassInstance<OstrioAuthManager>();
    ASSERT_EQ(manager->LoadCredentials(), 0);
    EXPECT_EQ(manager->GetAccessToken().View(), "tok");
    EXPECT_EQ(manager->GetRefreshToken().View(), "rt-1");
    EXPECT_EQ(manager->Logout(), 0);
    return;
  }
  auto store = KeychainUtils::CreateSecretServiceKeychain();
  ASSERT_TRUE(store);
  const bool stored = std::string_view(expect) == "stored";
  EXPECT_EQ(store->GetPassword(kService, kAccount, true), stored ? kSecret : u"");
  EXPECT_EQ(store->GetPassword(kService, kAccount, false), stored ? u"for this session" : u"");
}

}  // namespace
}  // namespace ostriolib

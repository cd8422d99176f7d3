// Against a real Secret Service (GNOME Keyring in a private session: run through
// with-secret-service.sh). What one process stores, a new process reads back; then it is cleared.

#include <gtest/gtest.h>

#include "AuthTestSupport.h"
#include "kelcore/KeychainUtils.h"
#include "kelcore/OSUtilsWrapper.h"
#include "PlatformSettings.h"

namespace ostriolib {
namespace {

using kelcore::KeychainUtils;

constexpr char16_t kService[] = u"com.corvane.ostrio.keyring-test";
constexpr char16_t kAccount[] = u"credentials_tester";
const std::u16string kSecret = u"s3cr\u00e9t \u2713 & = %";
const std::string kRecord = "expires=4102444800&refreshToken=rt-1&token=Bearer%20tok&userId=u-1";

std::string Expectation() {
  const char* value = std::getenv("OSTRIO_KEYRING_EXPECT");
  return value ? value : "";
}

TEST(SecretService, WhatOneProcessStoresANewProcessReadsBack) {
  auto store = KeychainUtils::CreateSecretServiceKeychain();
  ASSERT_TRUE(store) << "no usable Secret Service: run this through with-secret-service.sh";
  ASSERT_EQ(store->AddPassword(kService, kAccount, u"replaced", true), 0);
  ASSERT_EQ(store->AddPassword(kService, kAccount, kSecret, true), 0);
  ASSERT_EQ(store->AddPassword(kService, kAccount, u"for this session", false), 0);

  EXPECT_EQ(testing::RunInNewProcess("SecretServiceChild.*", {"OSTRIO_KEYRING_EXPECT=stored"}), 0);
  EXPECT_TRUE(store->RemovePassword(kService, kAccount, true));
  EXPECT_TRUE(store->RemovePassword(kService, kAccount, false));
  EXPECT_FALSE(store->RemovePassword(kService, kAccount, true));
  EXPECT_EQ(testing::RunInNewProcess("SecretServiceChild.*", {"OSTRIO_KEYRING_EXPECT=cleared"}), 0);
}

TEST(SecretService, TheAuthManagerKeepsItsRecordThereAndNotInFiles) {
  testing::TemporaryDirectory state;
  ::setenv("OSTRIOLIB_KEYCHAIN", "auto", 1);
  ::setenv("OSTRIOLIB_STATEDIR", state.Path().c_str(), 1);
  auto manager = kelcore::classref::AllocateClassInstance<OstrioAuthManager>(
      ostriolib::PlatformSettings::CreateKeychain(), kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>(
                                             std::make_shared<RecordingOSUtilsWrapper>()));
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "");
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str("ostrio-test://ostrio#" + kRecord)), 0);

  EXPECT_EQ(testing::RunInNewProcess("SecretServiceChild.*", {"OSTRIO_KEYRING_EXPECT=record"}), 0);
  EXPECT_FALSE(std::filesystem::exists(state.Path() / "credentials"));
  EXPECT_EQ(manager->LoadCredentials(), 0);  // still in memory here
  auto fresh = kelcore::classref::AllocateClassInstance<OstrioAuthManager>();
  EXPECT_FALSE(fresh->IsUserSignedIn());  // the child signed out
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
  testing::LogCapture log;
  EXPECT_EQ(store->GetPassword(kService, kAccount, true), u"");
  EXPECT_NE(log.AllText().find("is locked"), std::string::npos) << log.AllText();
  EXPECT_FALSE(KeychainUtils::CreateSecretServiceKeychain(std::chrono::seconds(5), std::chrono::seconds(10)));
}

TEST(SecretServiceChild, DISABLED_SeesWhatTheParentLeft) {
  const std::string expect = Expectation();
  if (expect == "record") {
    auto manager = kelcore::classref::AllocateClassInstance<OstrioAuthManager>();
    ASSERT_EQ(manager->LoadCredentials(), 0);
    EXPECT_EQ(manager->GetAccessToken().View(), "tok");
    EXPECT_EQ(manager->GetRefreshToken().View(), "rt-1");
    EXPECT_EQ(manager->Logout(), 0);
    return;
  }
  auto store = KeychainUtils::CreateSecretServiceKeychain();
  ASSERT_TRUE(store);
  if (expect == "stored") {
    EXPECT_EQ(store->GetPassword(kService, kAccount, true), kSecret);
    EXPECT_EQ(store->GetPassword(kService, kAccount, false), u"for this session");
  } else {
    ASSERT_EQ(expect, "cleared");
    EXPECT_EQ(store->GetPassword(kService, kAccount, true), u"");
    EXPECT_EQ(store->GetPassword(kService, kAccount, false), u"");
  }
}

}  // namespace
}  // namespace ostriolib

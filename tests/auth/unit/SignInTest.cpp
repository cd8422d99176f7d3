// Sign-in state, browser sign-in, the redirected callback URL and sign-out.

#include <gtest/gtest.h>

#include <future>
#include <latch>

#include "AuthTestSupport.h"
#include "kelcore/KeychainUtils.h"
#include "kelcore/OSUtilsWrapper.h"

namespace ostriolib {
namespace {

using kelcore::classref::AllocateClassInstance;
using kelcore::classref::InterfaceRef;
using testing::CallbackProbe;

constexpr char16_t kService[] = u"com.corvane.ostrio.token";
constexpr std::int64_t kNow = 1'700'000'000;

// Runs everything queued on the pre-termination executor so far (it is serial).
void DrainCallbacks() {
  std::promise<void> drained;
  kelcore::async::GetPreTerminationExecutor()->Post([&] { drained.set_value(); });
  ASSERT_EQ(drained.get_future().wait_for(testing::kHangGuard), std::future_status::ready);
}

class SignInTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }

  void Reset(InterfaceRef<kelcore::IKeychainUtils> store = kelcore::KeychainUtils::CreateMemoryKeychain()) {
    keychain = store;
    opener = std::make_shared<RecordingOSUtilsWrapper>();
    manager = AllocateClassInstance<OstrioAuthManager>(keychain, InterfaceRef<kelcore::IOSUtilsWrapper>(opener)).Shared();
    manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "");
    manager->SetClock([] { return std::chrono::system_clock::time_point(std::chrono::seconds(kNow)); });
  }

  static std::string Record(const std::string& expires, const std::string& refresh = "rt-1") {
    return "expires=" + expires + "&refreshToken=" + refresh + "&token=Bearer%20tok&userId=u-1";
  }
  void Store(const std::string& record) {
    keychain->AddPassword(kService, manager->GetCredentialAccountName(), kelcore::UTF8ToUTF16(record), true);
  }
  std::string Stored() {
    return kelcore::UTF16ToUTF8(keychain->GetPassword(kService, manager->GetCredentialAccountName(), true));
  }

  InterfaceRef<kelcore::IKeychainUtils> keychain;
  std::shared_ptr<RecordingOSUtilsWrapper> opener;
  std::shared_ptr<OstrioAuthManager> manager;
};

// Signed in means a token with more than an hour left, or a refresh token to get one with.
TEST_F(SignInTest, SignedInMeansAValidTokenOrARefreshToken) {
  struct Case {
    std::optional<std::string> stored;
    int loaded;
    bool valid, signedIn;
  };
  const Case cases[] = {
      {std::nullopt, kelcore::kErrorNotSignedIn, false, false},
      {"not a record", kelcore::kErrorBadCredentials, false, false},
      {Record(std::to_string(kNow + 3601)), 0, true, true},
      {Record(std::to_string(kNow + 3600)), 0, false, true},  // expired, but refreshable
      {Record(std::to_string(kNow + 3600), ""), 0, false, false},
      {Record(std::to_string(kNow + 3601) + "junk"), 0, true, true},  // digits up to the first non-digit
      {Record("soon"), 0, false, true},
      {Record("+" + std::to_string(kNow + 7200)), 0, false, true},
      {Record("99999999999999999999"), 0, false, true},   // overflow reads as 0
      {Record("-9223372036854775808"), 0, false, true},  // far past: must not wrap round to "valid"
  };
  for (const auto& c : cases) {
    Reset();
    if (c.stored) Store(*c.stored);
    const std::string name = c.stored.value_or("<nothing>");
    EXPECT_EQ(manager->LoadCredentials(), c.loaded) << name;
    EXPECT_EQ(manager->IsAccessTokenValid(), c.valid) << name;
    EXPECT_EQ(manager->IsUserSignedIn(), c.signedIn) << name;
    EXPECT_EQ(manager->GetAccessToken().View(), c.loaded == 0 ? "tok" : "") << name;
  }
}

TEST_F(SignInTest, LoginOpensTheSignInPageWithAnEncodedCallback) {
  EXPECT_EQ(manager->Login({}), 0);
  manager->Configure("acme+Editor/1.0.1", "a+b c\td", kEnvironmentDevelopment, "");
  EXPECT_EQ(manager->Login({}), 0);
  EXPECT_EQ(opener->Urls(), (std::vector<std::string>{
                                "https://accounts.ostrio.test:8443/welcome?legacy_auth=false&auth_callback=ostrio-test://ostrio",
                                "https://accounts.ostrio.test:8443/welcome?legacy_auth=false&auth_callback=a%2Bb%20c%9d://ostrio"}));

  opener->SetResult(false);
  EXPECT_EQ(manager->Login({}), kelcore::kErrorInvalidArgument);
}

TEST_F(SignInTest, LoginWithAStoredRecordSignsInWithoutTheBrowser) {
  Store(Record(std::to_string(kNow + 7200)));
  CallbackProbe probe;
  EXPECT_EQ(manager->Login(probe.Callback()), kelcore::kResultAlreadySignedIn);
  EXPECT_EQ(probe.Next(), kelcore::kResultAlreadySignedIn);
  EXPECT_TRUE(opener->Urls().empty());
  EXPECT_EQ(manager->GetAccessToken().View(), "tok");
}

TEST_F(SignInTest, LoginReportsASignInUrlItCannotBuild) {
  ::setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", ".bad domain", 1);
  testing::LogCapture log;
  const int result = manager->Login({});
  ::setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", ".ostrio.test:8443", 1);

  EXPECT_EQ(result, kelcore::kErrorInvalidArgument);
  EXPECT_TRUE(opener->Urls().empty());
  bool logged = false, traced = false;
  for (const auto& record : log.Records()) {
    if (record.isTrace) {
      traced |= record.message ==
                R"x(Failed to get ostrio Jwt login URL., ostrio Jwt Login URL: "", expression: "ostrioJwtLoginUrl == kelnet::URL()")x";
    } else if (record.message == "Failed to get ostrio Jwt login URL.") {
      logged = record.function == "ostriolib::OstrioAuthManager::Login" &&
               record.sourcePath == "auth/src/OstrioAuthManager" && record.fields.size() == 3 &&
               record.fields[1] == std::make_pair(std::string("expression"),
                                                  std::string("ostrioJwtLoginUrl == kelnet::URL()"));
    }
  }
  EXPECT_TRUE(logged);
  EXPECT_TRUE(traced);
}

TEST_F(SignInTest, CallbackUrlIsCheckedAndTheCallbackAlwaysHears) {
  const std::string fragment = Record(std::to_string(kNow + 7200));
  struct Case {
    std::string url;
    int result;
    std::string stored;  // after the call
  };
  const Case cases[] = {
      {"OSTRIO-TEST://OSTRIO#" + fragment, 0, fragment},
      {"ostrio-test://ostrio?no-fragment", kelcore::kErrorNoServerResponse, "old"},
      {"other://ostrio#" + fragment, kelcore::kErrorInvalidArgument, "old"},
      {"ostrio-test://ostrio#garbage", kelcore::kErrorBadCredentials, "garbage"},
      // The fragment starts at the first '#'.
      {"ostrio-test://ostrio#x#" + fragment, kelcore::kErrorBadCredentials, "x#" + fragment},
      // Beyond the bound: not looked into, nothing stored.
      {"ostrio-test://ostrio#" + fragment + "&pad=" + std::string(65 * 1024, 'x'), kelcore::kErrorInvalidArgument,
       "old"},
      // Not UTF-8: the store could not give it back as it came.
      {"ostrio-test://ostrio#" + fragment + "\xA4", kelcore::kErrorInvalidArgument, "old"},
  };
  for (const auto& c : cases) {
    Reset();
    Store("old");
    CallbackProbe probe;
    ASSERT_EQ(manager->Login(probe.Callback()), 0);  // "old" does not parse: the browser opens
    EXPECT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(c.url)), c.result) << c.url;
    EXPECT_EQ(probe.Next(), c.result) << c.url;
    EXPECT_EQ(Stored(), c.stored) << c.url;
    EXPECT_EQ(manager->GetAccessToken().View(), c.result == 0 ? "tok" : "") << c.url;
  }
}

TEST_F(SignInTest, LogoutClearsMemoryAndStoreAndReportsWhenNothingWasStored) {
  CallbackProbe probe;
  ASSERT_EQ(manager->Login(probe.Callback()), 0);
  ASSERT_EQ(manager->Login({}), 0);  // an empty callback keeps the one already given
  const std::string url = "ostrio-test://ostrio#" + Record(std::to_string(kNow + 7200));
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  DrainCallbacks();
  ASSERT_EQ(probe.Count(), 1u);
  EXPECT_EQ(manager->Logout(), 0);
  EXPECT_EQ(Stored(), "");
  EXPECT_EQ(manager->GetAccessToken().View(), "");
  EXPECT_EQ(manager->GetRefreshToken().View(), "");

  // Signed in in memory only: sign-out still clears it, and says nothing was stored.
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  ASSERT_TRUE(keychain->RemovePassword(kService, manager->GetCredentialAccountName(), true));
  EXPECT_EQ(manager->Logout(), kelcore::kErrorInvalidArgument);
  EXPECT_EQ(manager->GetAccessToken().View(), "");

  // The first Logout dropped the sign-in callback: the redirect processed after it called nobody.
  DrainCallbacks();
  EXPECT_EQ(probe.Count(), 1u);
}

// A state folder the file store will not write through (here a link) is not read or emptied
// through either: a sign-in there must not cost the user the record already stored.
TEST_F(SignInTest, AFolderTheStoreRefusesKeepsTheStoredRecord) {
  testing::TemporaryDirectory root;
  const auto real = root.Path() / "real";
  ASSERT_EQ(kelcore::KeychainUtils::CreateFileKeychain(real)->AddPassword(
                kService, u"credentials_" + kelcore::KeychainUtils::CurrentUserName(), u"old", true),
            0);
  std::filesystem::create_directory_symlink(real, root.Path() / "link");
  Reset(kelcore::KeychainUtils::CreateFileKeychain(root.Path() / "link"));
  testing::LogCapture log;
  const std::string url = "ostrio-test://ostrio#" + Record(std::to_string(kNow + 7200));
  EXPECT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  EXPECT_EQ(kelcore::KeychainUtils::CreateFileKeychain(real)->GetPassword(
                kService, u"credentials_" + kelcore::KeychainUtils::CurrentUserName(), true),
            u"old");
  EXPECT_NE(log.AllText().find("symbolic link"), std::string::npos) << log.AllText();
}

TEST_F(SignInTest, CallbackIsDroppedWhenTheManagerIsGone) {
  std::latch release(1);
  kelcore::async::GetPreTerminationExecutor()->Post([&] { release.wait(); });
  Store(Record(std::to_string(kNow + 7200)));
  bool called = false;
  EXPECT_EQ(manager->Login([&](int) { called = true; }), kelcore::kResultAlreadySignedIn);
  manager.reset();
  release.count_down();
  DrainCallbacks();
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace ostriolib

// Sign-in and refresh end to end against the emulator, over HTTPS on loopback, with the file
// credential store in a throwaway state folder. The log is captured throughout: no token may
// ever appear in it.

#include <gtest/gtest.h>

#include <map>

#include "ChildProcess.h"
#include "EmulatorProcess.h"
#include "LogCapture.h"
#include "OstrioAuthManager.h"
#include "ScratchFolders.h"
#include "kelcore/Dictionary.h"

namespace ostriolib {
namespace {

using kelcore::classref::AllocateClassInstance;
using kelcore::utility::Dictionary;

constexpr auto kHangGuard = std::chrono::seconds(60);  // only stops a broken test from hanging
constexpr char kClientId[] = "acme+Editor/1.0.1";

Dictionary ParseJson(const std::string& text) {
  auto parsed = kelcore::utility::JSONParseToDictionaryValue(text.data(), text.size());
  return parsed ? parsed->AsDictionary() : Dictionary();
}

// The store the settings name (the file store here); nothing here opens a browser.
std::shared_ptr<OstrioAuthManager> NewManager() {
  auto manager = AllocateClassInstance<OstrioAuthManager>().Shared();
  manager->Configure(kClientId, "ostrio-e2e", kEnvironmentDevelopment, "");
  return manager;
}

class SignInEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulator = EmulatorProcess::Start();
    ASSERT_TRUE(emulator) << "the emulator did not start";
    ::setenv("OSTRIOLIB_KEYCHAIN", "file", 1);
    ::setenv("OSTRIOLIB_STATEDIR", (scratch.Path() / "state").c_str(), 1);
    ::setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
    manager = NewManager();
  }

  // A session whose access token has `lifetime` seconds left, handed over as the sign-in
  // redirect would; its record.
  CredentialRecord SignInWithLifetime(int lifetime) {
    const std::string record = ParseJson(emulator->ControlPost("session", "{\"lifetime\":" + std::to_string(lifetime) + "}"))
                            .GetString("record");
    EXPECT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str("ostrio-e2e://ostrio#" + record)), 0);
    CredentialRecord parsed;
    EXPECT_TRUE(ParseCredentialRecord(record, parsed)) << record;
    secrets.insert(secrets.end(), {parsed.accessToken.ToStdString(), parsed.refreshToken.ToStdString()});
    return parsed;
  }

  TemporaryDirectory scratch;
  LogCapture log;  // before anything that could log
  std::unique_ptr<EmulatorProcess> emulator;
  std::shared_ptr<OstrioAuthManager> manager;
  std::vector<std::string> secrets;  // every token seen: none may reach the log
};

// The sign-in page itself is walked by a real browser in tests/e2e; here the emulator hands out
// the session its redirect would carry.
TEST_F(SignInEndToEndTest, SignInPersistsRefreshesAndSignsOutOnRejection) {
  // Under an hour left: refreshed through the emulator, with exactly these headers and no body.
  const CredentialRecord nearExpiry = SignInWithLifetime(3500);
  emulator->ControlDelete("requests");
  const auto refreshed = manager->RefreshAccessTokenIfNeeded();
  ASSERT_TRUE(refreshed.WaitFor(kHangGuard));
  ASSERT_EQ(refreshed.GetResult(), 0);
  secrets.insert(secrets.end(), {refreshed.Get().ToStdString(), manager->GetRefreshToken().ToStdString()});
  auto stored = NewManager();  // what the store now holds
  ASSERT_EQ(stored->LoadCredentials(), 0);
  EXPECT_EQ(stored->GetAccessToken().View(), refreshed.Get().View());
  const auto requests = ParseJson(emulator->ControlGet("requests")).GetArray("requests");
  ASSERT_EQ(requests.size(), 1u);
  const Dictionary request = requests[0].AsDictionary();
  EXPECT_EQ(request.GetString("url"), emulator->ApiUrl("/v2/auth/refresh_tokens/" +
                                                       nearExpiry.refreshToken.ToStdString() + "/apply"));
  EXPECT_EQ(request.GetString("body"), "");
  std::map<std::string, std::string> headers;
  for (const auto& header : request.GetArray("headers")) {
    const auto pair = header.AsArray();
    ASSERT_EQ(pair.size(), 2u);
    headers[pair[0].AsString()] = pair[1].AsString();
  }
  EXPECT_EQ(headers["content-type"], "application/x-www-form-urlencoded");
  EXPECT_EQ(headers["x-ostrio-client"], kClientId);
  EXPECT_EQ(headers.count("x-preview-environment") + headers.count("authorization"), 0u);

  // A rejected refresh (the refresh token revoked) signs out and clears the store.
  const CredentialRecord doomed = SignInWithLifetime(3500);
  emulator->ControlPost("revoke", "{\"refreshToken\":\"" + doomed.refreshToken.ToStdString() + "\"}");
  const auto rejected = manager->RefreshAccessTokenIfNeeded();
  ASSERT_TRUE(rejected.WaitFor(kHangGuard));
  EXPECT_EQ(rejected.GetResult(), kelcore::kErrorRefreshRejected);
  EXPECT_EQ(manager->GetAccessToken().View(), "");
  EXPECT_TRUE(std::filesystem::is_empty(scratch.Path() / "state" / "credentials"));

  const std::string logged = log.AllText();
  EXPECT_NE(logged.find("refresh failed"), std::string::npos) << "the log capture saw nothing";
  for (const auto& secret : secrets) {
    ASSERT_FALSE(secret.empty());
    EXPECT_EQ(logged.find(secret), std::string::npos) << "a token reached the log";
  }
}

// Eight processes of one user find the stored token within its last hour at the same moment:
// one refreshes, the others take what it stored, and the user stays signed in (the service
// rotates refresh tokens, so a second refresh of the same token would be refused).
TEST_F(SignInEndToEndTest, ProcessesAcrossAnExpiryRefreshOnce) {
  SignInWithLifetime(3500);
  emulator->ControlDelete("requests");
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) children.push_back(StartChildProcess("AuthEndToEndChild.*RefreshesOnce"));
  for (pid_t child : children) EXPECT_EQ(WaitForChildProcess(child), 0);
  int refreshes = 0;
  for (const auto& request : ParseJson(emulator->ControlGet("requests")).GetArray("requests")) {
    refreshes += request.AsDictionary().GetString("path").starts_with("/v2/auth/refresh_tokens/");
  }
  EXPECT_EQ(refreshes, 1);
  auto after = NewManager();
  ASSERT_EQ(after->LoadCredentials(), 0);
  EXPECT_TRUE(after->IsAccessTokenValid());
}

// The child half of the test above, in a new process, against the state it left.
TEST(AuthEndToEndChild, DISABLED_RefreshesOnce) {
  auto manager = NewManager();
  ASSERT_EQ(manager->LoadCredentials(), 0);
  const auto token = manager->RefreshAccessTokenIfNeeded();
  ASSERT_TRUE(token.WaitFor(kHangGuard));
  ASSERT_EQ(token.GetResult(), 0);
  EXPECT_TRUE(manager->IsAccessTokenValid());
}

}  // namespace
}  // namespace ostriolib

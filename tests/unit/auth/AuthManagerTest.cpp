// The auth manager against doubles: sign-in state, browser sign-in and its callback URL,
// sign-out, and the refresh of the access token; and the texts it reads and writes (the
// credential record, percent-encoding, the JWT).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <future>
#include <latch>
#include <thread>

#include "CredentialRecord.h"
#include "JwtTokenData.h"
#include "LogCapture.h"
#include "OstrioAuthManager.h"
#include "RecordingOSUtilsWrapper.h"
#include "ScratchFolders.h"
#include "ScriptedPost.h"
#include "kelcore/UrlSchemeRegistration.h"

namespace ostriolib {
namespace {

using kelcore::classref::AllocateClassInstance;
using kelcore::classref::InterfaceRef;

constexpr auto kHangGuard = std::chrono::seconds(60);  // only stops a broken test from hanging
constexpr std::int64_t kNow = 1'700'000'000;
const std::string kHourLeft = std::to_string(kNow + 3600);
const std::string kDayLeft = std::to_string(kNow + 86400);
const std::u16string kService(OstrioAuthManager::kCredentialService);

// Every test runs in throwaway XDG folders and opens nothing, so none can touch the desktop of
// the user running it.
const TemporaryDirectory sScratch;
const ScopedEnvironment sScratchDesktop{
    {"XDG_DATA_HOME", sScratch.Path().string()},  {"XDG_CONFIG_HOME", sScratch.Path().string()},
    {"XDG_STATE_HOME", sScratch.Path().string()}, {"OSTRIOLIB_DEBUG_DB", "/dev/null"},
    {"OSTRIOLIB_KEYCHAIN", "memory"},             {"OSTRIOLIB_DOMAIN_DEVELOPMENT", ".ostrio.test:8443"}};

// A JWT whose payload is `claims` (the client does not check the header or the signature).
std::string Jwt(std::string_view claims) {
  const std::string payload = kelcore::EncodeBinaryDataToBase64(claims);
  return "e30." + payload.substr(0, payload.find('=')) + ".c2ln";
}
// Every claim a token must carry, with `exp` as given; `without` leaves one out.
std::string Claims(const std::string& exp, std::string_view without = "") {
  const std::pair<std::string_view, std::string> claims[] = {
      {"_correlation_id", R"("c")"}, {"_version", "4294967298"}, {"aud", R"("a")"}, {"exp", exp}, {"iat", "1"},
      {"iss", "7"}, {"jti", R"("j")"}, {"nbf", "2"}, {"sub", R"("s")"}, {"typ", R"("t")"}};
  std::string text;
  for (const auto& [key, value] : claims) {
    if (key != without) text += (text.empty() ? "{\"" : ",\"") + std::string(key) + "\":" + value;
  }
  return text + "}";
}
std::string Record(const std::string& expires, const std::string& refresh = "rt-1", const std::string& token = "at-1") {
  return "expires=" + expires + "&refreshToken=" + refresh + "&token=Bearer%20" + token + "&userId=u-1";
}
// A refresh answer; an empty value leaves its header out.
std::shared_ptr<kelnet::Response> Answer(int status, const std::string& authorization, const std::string& refresh) {
  kelnet::HeaderMap headers;
  if (!authorization.empty()) headers.emplace("authorization", authorization);
  if (!refresh.empty()) headers.emplace("x-refresh-token", refresh);
  return std::make_shared<kelnet::Response>(status, std::move(headers), "");
}
std::chrono::system_clock::time_point Now() { return std::chrono::system_clock::time_point(std::chrono::seconds(kNow)); }

// What a token future came to: the token, or the failure.
struct Outcome {
  std::string token;
  kelcore::Result code = 0;
  std::string what = {}, expression = {};
};
Outcome Wait(const kelcore::async::Future<kelcore::ImmutableString>& future) {
  if (!future.WaitFor(kHangGuard)) return {"<hung>"};
  if (!future.GetException()) return {future.Get().ToStdString()};
  try {
    std::rethrow_exception(future.GetException());
  } catch (const kelcore::kel_exception& e) {
    return {"", e.GetResult(), e.what(), e.Expression()};
  } catch (const std::exception& e) {
    return {"", kelcore::kErrorFailed, e.what()};
  }
}

class AuthManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Heard(); }

  void Reset() {
    keychain = kelcore::KeychainUtils::CreateMemoryKeychain();
    manager = AllocateClassInstance<OstrioAuthManager>(keychain, InterfaceRef<kelcore::IOSUtilsWrapper>(opener)).Shared();
    manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "");
    manager->SetClock(&Now);
    manager->SetPostFunction(post.Post());
  }
  std::string Stored() {
    return kelcore::UTF16ToUTF8(keychain->GetPassword(kService, manager->GetCredentialAccountName(), true));
  }
  void SignIn(const std::string& record) {
    manager->Logout();
    manager->StoreCredentials(record);
    ASSERT_EQ(manager->LoadCredentials(), 0);
  }
  Outcome Refresh() { return Wait(manager->RefreshAccessTokenIfNeeded()); }

  // The sign-in callback, and what it heard once every callback posted so far has run. Both run
  // on the serial executor the callbacks are posted to, so `heard` needs no lock.
  std::function<void(int)> Hear() {
    return [this](int result) { heard.push_back(result); };
  }
  std::vector<int> Heard() {
    std::promise<std::vector<int>> drained;
    kelcore::async::GetPreTerminationExecutor()->Post([&] { drained.set_value(std::exchange(heard, {})); });
    auto future = drained.get_future();
    return future.wait_for(kHangGuard) == std::future_status::ready ? future.get() : std::vector<int>{-1};
  }

  std::vector<int> heard;
  InterfaceRef<kelcore::IKeychainUtils> keychain;
  std::shared_ptr<RecordingOSUtilsWrapper> opener = std::make_shared<RecordingOSUtilsWrapper>();
  ScriptedPost post;
  std::shared_ptr<OstrioAuthManager> manager;
};

// Signed in means a token with more than an hour left, or a refresh token to get one with.
TEST_F(AuthManagerTest, SignedInMeansAValidTokenOrARefreshToken) {
  // What is stored; what loading it returns; whether the token is valid and the user signed in.
  const std::tuple<std::optional<std::string>, int, bool, bool> cases[] = {
      {std::nullopt, kelcore::kErrorNotSignedIn, false, false},
      {"not a record", kelcore::kErrorBadCredentials, false, false},
      {Record(std::to_string(kNow + 3601)), 0, true, true},
      {Record(kHourLeft), 0, false, true},  // expired, but refreshable
      {Record(kHourLeft, ""), 0, false, false},
      {Record(std::to_string(kNow + 3601) + "junk"), 0, true, true},  // digits up to the first non-digit
      {Record("soon"), 0, false, true},
      {Record("+" + kDayLeft), 0, false, true},
      {Record("99999999999999999999"), 0, false, true},   // overflow reads as 0
      {Record("-9223372036854775808"), 0, false, true},  // far past: must not wrap round to "valid"
  };
  for (const auto& [stored, loaded, valid, signedIn] : cases) {
    SCOPED_TRACE(stored.value_or("<nothing>"));
    Reset();
    if (stored) manager->StoreCredentials(*stored);
    EXPECT_EQ(manager->LoadCredentials(), loaded);
    EXPECT_EQ(manager->IsAccessTokenValid(), valid);
    EXPECT_EQ(manager->IsUserSignedIn(), signedIn);
    EXPECT_EQ(manager->GetAccessToken().View(), loaded == 0 ? "at-1" : "");
  }
}

// Login opens the sign-in page (its callback scheme encoded), reports a page it cannot open or a
// URL it cannot build, and signs in from a stored record without the browser.
TEST_F(AuthManagerTest, LoginOpensTheSignInPageOrSignsInFromTheStore) {
  EXPECT_EQ(manager->Login({}), 0);
  manager->Configure("acme+Editor/1.0.1", "a+b c\td", kEnvironmentDevelopment, "");
  EXPECT_EQ(manager->Login({}), 0);
  EXPECT_EQ(opener->Urls(), (std::vector<std::string>{
                                "https://accounts.ostrio.test:8443/welcome?legacy_auth=false&auth_callback=ostrio-test://ostrio",
                                "https://accounts.ostrio.test:8443/welcome?legacy_auth=false&auth_callback=a%2Bb%20c%9d://ostrio"}));
  opener->result = false;
  EXPECT_EQ(manager->Login({}), kelcore::kErrorInvalidArgument);
  {
    ScopedEnvironment badDomain{{"OSTRIOLIB_DOMAIN_DEVELOPMENT", ".bad domain"}};
    LogCapture log;
    EXPECT_EQ(manager->Login({}), kelcore::kErrorInvalidArgument);
    const auto records = log.Records();
    const auto logged = std::find_if(records.begin(), records.end(), [](const auto& record) { return !record.isTrace; });
    ASSERT_NE(logged, records.end());
    EXPECT_EQ(logged->message, "Failed to get ostrio Jwt login URL.");
    EXPECT_EQ(logged->function, "ostriolib::OstrioAuthManager::Login");
    EXPECT_EQ(logged->sourcePath, "auth/src/OstrioAuthManager");
    EXPECT_THAT(logged->fields, ::testing::Contains(::testing::Pair("expression", "ostrioJwtLoginUrl == kelnet::URL()")));
  }
  manager->StoreCredentials(Record(kDayLeft));
  EXPECT_EQ(manager->Login(Hear()), kelcore::kResultAlreadySignedIn);
  EXPECT_EQ(Heard(), std::vector<int>{kelcore::kResultAlreadySignedIn});
  EXPECT_EQ(opener->Urls().size(), 3u);  // neither the bad URL nor the stored sign-in opened a page
}

TEST_F(AuthManagerTest, CallbackUrlIsCheckedAndTheCallbackAlwaysHears) {
  const std::string fragment = Record(kDayLeft);
  // The URL; what it returns and the callback hears; what is stored after it.
  const std::tuple<std::string, int, std::string> cases[] = {
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
  for (const auto& [url, result, stored] : cases) {
    SCOPED_TRACE(url.substr(0, 80));
    Reset();
    manager->StoreCredentials("old");
    ASSERT_EQ(manager->Login(Hear()), 0);  // "old" does not parse: the browser opens
    EXPECT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), result);
    EXPECT_EQ(Heard(), std::vector<int>{result});
    EXPECT_EQ(Stored(), stored);
    EXPECT_EQ(manager->GetAccessToken().View(), result == 0 ? "at-1" : "");
  }
}

TEST_F(AuthManagerTest, LogoutClearsMemoryStoreAndCallback) {
  ASSERT_EQ(manager->Login(Hear()), 0);
  ASSERT_EQ(manager->Login({}), 0);  // an empty callback keeps the one already given
  const std::string url = "ostrio-test://ostrio#" + Record(kDayLeft);
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  EXPECT_EQ(Heard().size(), 1u);
  EXPECT_EQ(manager->Logout(), 0);
  EXPECT_EQ(Stored(), "");

  // Signed in in memory only: sign-out still clears it, says nothing was stored, and the
  // callback the first sign-out dropped hears nothing.
  ASSERT_EQ(manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(url)), 0);
  ASSERT_TRUE(keychain->RemovePassword(kService, manager->GetCredentialAccountName(), true));
  EXPECT_EQ(manager->Logout(), kelcore::kErrorInvalidArgument);
  EXPECT_EQ(manager->GetAccessToken().View(), "");
  EXPECT_TRUE(Heard().empty());
}

// Continuations and the sign-in callback hold the manager weakly: once it is gone they do nothing.
TEST_F(AuthManagerTest, NothingRunsForAManagerThatIsGone) {
  SignIn(Record(kHourLeft));
  const auto pending = manager->RefreshAccessTokenIfNeeded();
  std::latch release(1);
  kelcore::async::GetPreTerminationExecutor()->Post([&] { release.wait(); });
  EXPECT_EQ(manager->Login(Hear()), kelcore::kResultAlreadySignedIn);
  manager.reset();
  release.count_down();
  EXPECT_TRUE(Heard().empty());
  ScriptedPost::Complete(post.Requests().at(0).completion, Answer(200, "Bearer " + Jwt(Claims(kDayLeft)), "rt-2"));
  EXPECT_EQ(Wait(pending).code, kelcore::kErrorPreconditionFailed);
}

// One instance while it is held; Initialize's work is done once per process, but its arguments
// are always checked. The only test here that calls Initialize.
TEST(AuthManagerInstance, OneWhileHeldInitializedOncePerProcess) {
  const auto registered = [](const std::string& scheme) {
    return std::filesystem::exists(std::filesystem::path(std::getenv("XDG_DATA_HOME")) / "applications" /
                                   kelcore::UrlSchemeRegistration::DesktopFileName(scheme));
  };
  auto held = GetOstrioAuthManager();
  EXPECT_EQ(GetOstrioAuthManager(), held);
  auto opener = std::make_shared<RecordingOSUtilsWrapper>();
  held->SetOSUtilsWrapper(InterfaceRef<kelcore::IOSUtilsWrapper>(opener));
  EXPECT_EQ(held->Initialize("", "ostrio-once", kEnvironmentDevelopment, ""), kelcore::kErrorInvalidArgument);
  EXPECT_EQ(held->Initialize("acme+Editor/1.0.1", "ostrio-once", kEnvironmentDevelopment, ""), 0);
  EXPECT_TRUE(registered("ostrio-once"));
  EXPECT_EQ(held->Initialize("other+App/2.0.2", "ostrio-twice", kEnvironmentProduction, ""), 0);
  EXPECT_EQ(held->Initialize("acme+Editor/1.0.1", "", kEnvironmentDevelopment, ""), kelcore::kErrorInvalidArgument);
  ASSERT_EQ(held->Login({}), 0);
  ASSERT_EQ(opener->Urls().size(), 1u);
  EXPECT_EQ(opener->Urls()[0], "https://accounts.ostrio.test:8443/welcome?legacy_auth=false&auth_callback=ostrio-once://ostrio");

  std::weak_ptr<IOstrioAuthManager> old = held.Weak();
  held.Reset();
  EXPECT_TRUE(old.expired());
  EXPECT_EQ(GetOstrioAuthManager()->Initialize("acme+Editor/1.0.1", "ostrio-again", kEnvironmentDevelopment, ""), 0);
  EXPECT_FALSE(registered("ostrio-twice") || registered("ostrio-again"));
}

// ---- the refresh of the access token ----

// The request's exact form (the refresh token one path segment however it reads), and what a
// good answer leaves in memory and in the store: a bare token is taken as it is, claims may come
// wrapped, and of repeated headers the last counts.
TEST_F(AuthManagerTest, RefreshSendsOneExactRequestAndStoresTheAnswer) {
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "pr-42");
  SignIn(Record(kHourLeft, "../r t\x01"));
  const std::string jwt = Jwt(Claims(kDayLeft));
  post.autoAnswer = [&] { return Answer(200, jwt, "rt-2"); };
  EXPECT_EQ(Refresh().token, jwt);
  EXPECT_EQ(Stored(), Record(kDayLeft, "rt-2", jwt));
  const auto requests = post.Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].url.View(), "https://api.ostrio.test:8443/v2/auth/refresh_tokens/..%2Fr%20t%01/apply");
  EXPECT_EQ(requests[0].headers, (kelnet::HeaderMap{{"content-type", "application/x-www-form-urlencoded"},
                                                    {"x-ostrio-client", "acme+Editor/1.0.1"},
                                                    {"x-preview-environment", "pr-42"}}));

  // The preview header belongs to development only.
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentStaging, "pr-42");
  SignIn(Record(kHourLeft));
  const std::string wrapped = Jwt(R"({"SerializerWrappedObject":)" + Claims("500") + "}");
  const kelnet::HeaderMap repeated{{"authorization", "Bearer stale"}, {"x-refresh-token", "rt-stale"},
                                   {"authorization", "Bearer " + wrapped}, {"x-refresh-token", "rt-3"}};
  post.autoAnswer = [&] { return std::make_shared<kelnet::Response>(200, repeated, ""); };
  EXPECT_EQ(Refresh().token, wrapped);
  EXPECT_EQ(Stored(), Record("500", "rt-3", wrapped));
  EXPECT_EQ(post.Requests().at(1).headers.count("x-preview-environment"), 0u);
}

// A verdict on the refresh token (a refusal, or a success whose answer cannot be used) signs
// out; no verdict (no answer, a server error, throttling, a status that is neither) keeps the
// credentials for the next caller to try again. Neither token reaches the error or the log.
TEST_F(AuthManagerTest, AFailedRefreshSignsOutOnlyOnAVerdict) {
  const std::string good = "Bearer " + Jwt(Claims(kDayLeft));
  const auto status = [&](int code) { return Answer(code, good, "rt-2"); };
  const std::string rejected = "!response->IsSuccess()";
  const std::string carry = "!CredentialRecordCanCarry(accessToken.View()) || !CredentialRecordCanCarry(refreshToken.View())";
  // The answer; the failure's code and the expression of its kel_exception (when it is one of
  // ours); whether it signs out.
  const std::tuple<std::string, std::shared_ptr<kelnet::Response>, kelcore::Result, std::string, bool> cases[] = {
      {"400", status(400), kelcore::kErrorRefreshRejected, rejected, true},
      {"401", status(401), kelcore::kErrorRefreshRejected, rejected, true},
      {"no token", Answer(200, "", "rt-2"), kelcore::kErrorRefreshRejected, "bearerAuthToken.empty()", true},
      {"no refresh token", Answer(200, good, ""), kelcore::kErrorRefreshRejected, "refreshToken.empty()", true},
      // Base64 padding in a token: stored raw, it would make the record unreadable.
      {"padding", Answer(200, good, "rt=="), kelcore::kErrorRefreshRejected, carry, true},
      {"padded token", Answer(200, good + "=", "rt-2"), kelcore::kErrorRefreshRejected, carry, true},
      {"one dot", Answer(200, "Bearer abc.def", "rt-2"), kelcore::kErrorRefreshRejected, "decodedPayload.empty()", true},
      {"no nbf", Answer(200, "Bearer " + Jwt(Claims(kDayLeft, "nbf")), "rt-2"), kelcore::kErrorInvalidArgument, "", true},
      {"not JSON", Answer(200, "Bearer " + Jwt("{nope"), "rt-2"), kelcore::kErrorFailed, "", true},
      {"no answer", nullptr, kelcore::kErrorNoResponse, "!response", false},
      {"429", status(429), kelcore::kErrorRefreshRejected, rejected, false},
      {"500", status(500), kelcore::kErrorRefreshRejected, rejected, false},
      {"503", status(503), kelcore::kErrorRefreshRejected, rejected, false},
      {"199", status(199), kelcore::kErrorRefreshRejected, rejected, false},
      {"302", status(302), kelcore::kErrorRefreshRejected, rejected, false},
  };
  const auto noToken = ::testing::Not(::testing::AnyOf(::testing::HasSubstr("at-1"), ::testing::HasSubstr("rt-1")));
  for (const auto& [name, answer, code, expression, signsOut] : cases) {
    SCOPED_TRACE(name);
    SignIn(Record(kHourLeft));
    post.autoAnswer = [&] { return answer; };
    LogCapture log;
    const Outcome failed = Refresh();
    EXPECT_EQ(failed.code, code);
    EXPECT_TRUE(expression.empty() || failed.expression == expression) << failed.expression;
    EXPECT_THAT(failed.what, noToken);
    EXPECT_THAT(log.AllText(), noToken);
    EXPECT_EQ(manager->GetRefreshToken().View(), signsOut ? "" : "rt-1");
    EXPECT_EQ(Stored(), signsOut ? "" : Record(kHourLeft));
    if (signsOut) continue;
    const std::size_t sent = post.Requests().size();
    EXPECT_EQ(Refresh().code, code);  // the next caller asks again
    EXPECT_EQ(post.Requests().size(), sent + 1);
  }
}

TEST_F(AuthManagerTest, RefreshesThatSendNothing) {
  EXPECT_EQ(Refresh().code, kelcore::kErrorNotSignedIn);
  SignIn(Record(kHourLeft, ""));
  EXPECT_EQ(Refresh().code, kelcore::kErrorNoRefreshToken);
  EXPECT_EQ(Stored(), "");

  SignIn(Record(kHourLeft));
  post.startResult = false;
  EXPECT_EQ(Refresh().code, kelcore::kErrorFailed);  // the POST could not start: no verdict, still signed in
  EXPECT_EQ(manager->GetRefreshToken().View(), "rt-1");

  // A refresh that throws before it starts leaves no claim that would answer later callers
  // with "pending".
  post.startResult = true;
  manager->SetClock([]() -> std::chrono::system_clock::time_point { throw std::runtime_error("no clock"); });
  EXPECT_THROW(manager->RefreshAccessTokenIfNeeded(), std::runtime_error);
  manager->SetClock(&Now);
  const std::string jwt = Jwt(Claims(kDayLeft));
  post.autoAnswer = [&] { return Answer(200, "Bearer " + jwt, "rt-2"); };
  EXPECT_EQ(Refresh().token, jwt);
}

// While a refresh runs, other callers get the cached token at once, or fail when there is none;
// once it ends, the next caller is answered from the new token.
TEST_F(AuthManagerTest, OneRefreshAtATime) {
  SignIn(Record(kHourLeft));
  const auto first = manager->RefreshAccessTokenIfNeeded();
  EXPECT_EQ(Refresh().token, "at-1");
  ASSERT_EQ(post.Requests().size(), 1u);
  const std::string jwt = Jwt(Claims(kDayLeft));
  ScriptedPost::Complete(post.Requests().at(0).completion, Answer(200, "Bearer " + jwt, "rt-2"));
  EXPECT_EQ(Wait(first).token, jwt);
  EXPECT_EQ(Refresh().token, jwt);
  EXPECT_EQ(post.Requests().size(), 1u);

  SignIn(Record(kHourLeft));
  const auto pending = manager->RefreshAccessTokenIfNeeded();
  manager->Logout();
  const Outcome refused = Refresh();
  EXPECT_EQ(refused.code, kelcore::kErrorNotSignedIn);
  EXPECT_EQ(refused.what, "Refresh access token pending, with no cached access token.");
  ScriptedPost::Complete(post.Requests().back().completion, Answer(401, "", ""));
  EXPECT_EQ(Wait(pending).code, kelcore::kErrorRefreshRejected);
}

// A sign-in callback and a finishing refresh both write the tokens while other threads read them
// and ask for refreshes. Every token member is shared this way; ThreadSanitizer (the tsan preset)
// reports any access that is not under the manager's lock.
TEST_F(AuthManagerTest, SignInAndRefreshOverlapReadersSafely) {
  constexpr int kRounds = 20, kThreads = 5, kReads = 40;  // threads 0 and 1 write, the others read
  const std::string jwt = Jwt(Claims(kDayLeft));
  const std::string callback = "ostrio-test://ostrio#" + Record(kDayLeft, "rt-9");
  for (int round = 0; round < kRounds; ++round) {
    SignIn(Record(kHourLeft));
    const auto refresh = manager->RefreshAccessTokenIfNeeded();
    const auto requests = post.Requests();
    ASSERT_EQ(requests.size(), static_cast<std::size_t>(round + 1));

    std::latch start(kThreads);
    std::vector<std::thread> threads;
    std::vector<std::vector<kelcore::async::Future<kelcore::ImmutableString>>> asked(kThreads, {refresh});
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        start.arrive_and_wait();
        if (t == 0) manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(callback));
        if (t == 1) ScriptedPost::Complete(requests.back().completion, Answer(200, "Bearer " + jwt, "rt-2"));
        for (int i = 0; t > 1 && i < kReads; ++i) {
          EXPECT_FALSE(manager->GetAccessToken().empty());
          EXPECT_FALSE(manager->GetRefreshToken().empty());
          EXPECT_TRUE(manager->IsUserSignedIn());
          asked[t].push_back(manager->RefreshAccessTokenIfNeeded());
        }
      });
    }
    for (auto& thread : threads) thread.join();
    // Each caller got the refreshed token, or the signed-in one when the callback landed in
    // between; and no claim is left for the next round.
    for (const auto& futures : asked) {
      for (const auto& future : futures) EXPECT_THAT(Wait(future).token, ::testing::AnyOf(jwt, "at-1"));
    }
    EXPECT_TRUE(manager->IsAccessTokenValid());
  }
}

// ---- the texts ----

// Each row one text: whether it parses, and what expiresAt and the access token read. The
// written form is pinned where records are stored (above).
TEST(CredentialRecord, ItemRules) {
  const std::tuple<std::string, bool, std::string, std::string> cases[] = {
      {WriteCredentialRecord({"u", "eyJ.abc.sig", "r", "1700003600"}), true, "1700003600", "eyJ.abc.sig"},
      // Of repeated keys the first counts.
      {"expires=1&expires=2&refreshToken=r&token=Bearer%20abc&userId=u", true, "1", "abc"},
      // The token loses its first nine characters, whatever they are.
      {"expires=1&refreshToken=r&token=abc&userId=u", true, "1", ""},
      {"expires=1&refreshToken=r&token=123456789abc&userId=u", true, "1", "abc"},
      // An item with two '=' is skipped, so the later "expires" is the first that counts.
      {"expires=1=2&expires=3&refreshToken=r&token=Bearer%20abc&userId=u", true, "3", "abc"},
      // Runs of separators count as one.
      {"&&expires==5&&refreshToken=r&token=Bearer%20t&&userId=u&", true, "5", "t"},
      // Every key is required.
      {"", false, "", ""},
      {"refreshToken=r&token=Bearer%20t&userId=u", false, "", ""},
      {"expires=1&token=Bearer%20t&userId=u", false, "1", ""},
      {"expires=1&refreshToken=r&userId=u", false, "1", ""},
      {"expires=1&refreshToken=r&token=Bearer%20t", false, "1", "t"},
      // Beyond the bound: not looked into.
      {"expires=1&refreshToken=r&token=Bearer%20t&userId=u&" + std::string(kMaxCredentialRecordBytes, 'x'), false, "", ""},
  };
  for (const auto& [text, parses, expiresAt, accessToken] : cases) {
    SCOPED_TRACE(text.substr(0, 80));
    CredentialRecord record;
    EXPECT_EQ(ParseCredentialRecord(text, record), parses);
    EXPECT_EQ(record.expiresAt.View(), expiresAt);
    EXPECT_EQ(record.accessToken.View(), accessToken);
  }
}

// The sign-in page takes hex without a leading zero; a path segment takes two digits, and no
// text may add, remove or climb out of a segment.
TEST(PercentEncoding, ForTheSignInPageAndForOnePathSegment) {
  const std::array<std::string, 3> cases[] = {
      {"Az09-_.~", "Az09-_.~", "Az09-_.~"},
      {"a+b c", "a%2Bb%20c", "a%2Bb%20c"},
      {"\t\n\x10\xC3\xA9:/?#", "%9%A%10%C3%A9%3A%2F%3F%23", "%09%0A%10%C3%A9%3A%2F%3F%23"},
      {"..", "..", "%2E%2E"},
      {".", ".", "%2E"},
      {"../..", "..%2F..", "..%2F.."},
  };
  for (const auto& [text, page, segment] : cases) {
    EXPECT_EQ(OstrioAuthManager::UrlEncode(text), page) << text;
    EXPECT_EQ(OstrioAuthManager::EncodePathSegment(text), segment) << text;
  }
}

TEST(JwtTokenData, PayloadIsTheSecondPartPaddedToWholeQuanta) {
  EXPECT_EQ(DecodeJwtPayload("h.YQ.s"), "a");
  EXPECT_EQ(DecodeJwtPayload("h.YWI.s"), "ab");
  EXPECT_EQ(DecodeJwtPayload("h.YWJj.s"), "abc");
  EXPECT_EQ(DecodeJwtPayload("h.YWJjZ.s"), "");  // five characters cannot be padded into base64
  EXPECT_EQ(DecodeJwtPayload("h.+/8.s"), "\xFB\xFF");
  EXPECT_EQ(DecodeJwtPayload("h.YWJj"), "");
  EXPECT_EQ(DecodeJwtPayload("YWJj"), "");
}

TEST(JwtTokenData, EveryClaimIsRequired) {
  const JwtTokenData data = ParseJwtTokenData(Claims("-5"));
  EXPECT_EQ(data.version, 2);  // the low 32 bits
  EXPECT_EQ(data.exp, -5);
  EXPECT_EQ(data.iss.View(), "");  // not a string
  for (const char* key : {"_correlation_id", "_version", "aud", "exp", "iat", "iss", "jti", "nbf", "sub", "typ"}) {
    try {
      ParseJwtTokenData(Claims("-5", key));
      ADD_FAILURE() << key << " was not required";
    } catch (const kelcore::missing_key_exception& e) {
      EXPECT_EQ(e.Key(), key);
      EXPECT_EQ(e.TypeName(), "ostriolib::JwtTokenData");
    }
  }
}

}  // namespace
}  // namespace ostriolib

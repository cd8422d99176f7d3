// Access-token refresh: when it happens, what is sent, how answers are judged, single flight.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "AuthTestSupport.h"
#include "kelcore/KeychainUtils.h"
#include "kelcore/OSUtilsWrapper.h"

namespace ostriolib {
namespace {

using kelcore::ImmutableString;
using kelcore::async::Future;
using kelcore::classref::AllocateClassInstance;
using kelcore::classref::InterfaceRef;
using testing::RefreshAnswer;

constexpr char16_t kService[] = u"com.corvane.ostrio.token";
constexpr std::int64_t kNow = 1'700'000'000;
const std::string kRefreshUrl = "https://api.ostrio.test:8443/v2/auth/refresh_tokens/rt-1/apply";

class TokenRefreshTest : public ::testing::Test {
 protected:
  void SetUp() override {
    keychain = kelcore::KeychainUtils::CreateMemoryKeychain();
    manager = AllocateClassInstance<OstrioAuthManager>(
                  keychain, InterfaceRef<kelcore::IOSUtilsWrapper>(std::make_shared<RecordingOSUtilsWrapper>()))
                  .Shared();
    manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "");
    manager->SetClock([] { return std::chrono::system_clock::time_point(std::chrono::seconds(kNow)); });
    manager->SetPostFunction(transport.Post());
    SignIn(kNow + 3600);
  }

  // Signed in from a stored record whose token expires at `expires`.
  void SignIn(std::int64_t expires, const std::string& refreshToken = "rt-1") {
    manager->Logout();
    manager->StoreCredentials(Record(expires, refreshToken));
    ASSERT_EQ(manager->LoadCredentials(), 0);
  }
  static std::string Record(std::int64_t expires, const std::string& refreshToken = "rt-1") {
    return "expires=" + std::to_string(expires) + "&refreshToken=" + refreshToken + "&token=Bearer%20old&userId=u-1";
  }

  std::string Stored() {
    return kelcore::UTF16ToUTF8(keychain->GetPassword(kService, manager->GetCredentialAccountName(), true));
  }

  // Waits for the outcome: the token, or the failure.
  static std::pair<std::string, std::exception_ptr> Outcome(const Future<ImmutableString>& future) {
    if (!future.WaitFor(testing::kHangGuard)) return {"<hung>", nullptr};
    if (auto error = future.GetException()) return {"", error};
    return {future.Get().ToStdString(), nullptr};
  }

  InterfaceRef<kelcore::IKeychainUtils> keychain;
  ScriptedPost transport;
  std::shared_ptr<OstrioAuthManager> manager;
};

TEST_F(TokenRefreshTest, RefreshesOnlyWithAnHourOrLessLeft) {
  ScopedEnvironment caBundle{{"OSTRIOLIB_CABUNDLE", "/etc/ostrio/extra-ca.pem"}};
  SignIn(kNow + 3601);
  EXPECT_EQ(Outcome(manager->RefreshAccessTokenIfNeeded()).first, "old");
  EXPECT_TRUE(transport.Requests().empty());

  SignIn(kNow + 3600);
  const std::string jwt = testing::MakeJwt(testing::ClaimsJson(kNow + 86400));
  transport.autoAnswer = [&] { return RefreshAnswer(200, "Bearer " + jwt, "rt-2"); };
  EXPECT_EQ(Outcome(manager->RefreshAccessTokenIfNeeded()).first, jwt);

  const auto requests = transport.Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].url.View(), kRefreshUrl);
  EXPECT_FALSE(requests[0].hasBody);
  EXPECT_EQ(requests[0].caBundlePath, "/etc/ostrio/extra-ca.pem");
  EXPECT_EQ(requests[0].headers, (kelnet::HeaderMap{{"content-type", "application/x-www-form-urlencoded"},
                                                    {"x-ostrio-client", "acme+Editor/1.0.1"}}));
  EXPECT_EQ(Stored(), "expires=" + std::to_string(kNow + 86400) + "&refreshToken=rt-2&token=Bearer%20" + jwt +
                          "&userId=u-1");
}

TEST_F(TokenRefreshTest, PreviewHeaderOnlyInDevelopment) {
  const std::string jwt = testing::MakeJwt(testing::ClaimsJson(kNow + 86400));
  transport.autoAnswer = [&] { return RefreshAnswer(200, jwt, "rt-2"); };  // a bare token works too
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentDevelopment, "pr-42");
  EXPECT_EQ(Outcome(manager->RefreshAccessTokenIfNeeded()).first, jwt);
  SignIn(kNow);
  manager->Configure("acme+Editor/1.0.1", "ostrio-test", kEnvironmentStaging, "pr-42");
  Outcome(manager->RefreshAccessTokenIfNeeded());

  const auto requests = transport.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].headers.count("x-preview-environment"), 1u);
  EXPECT_EQ(requests[0].headers.find("x-preview-environment")->second.View(), "pr-42");
  EXPECT_EQ(requests[1].headers.count("x-preview-environment"), 0u);
}

// Claims wrapped in "SerializerWrappedObject", and headers that occur twice (the last counts).
TEST_F(TokenRefreshTest, WrappedClaimsAndRepeatedHeaders) {
  const std::string jwt = testing::MakeJwt(R"({"SerializerWrappedObject":)" + testing::ClaimsJson(kNow + 500) + "}");
  transport.autoAnswer = [&] {
    kelnet::HeaderMap headers{{"authorization", "Bearer stale"}, {"x-refresh-token", "rt-stale"},
                              {"authorization", "Bearer " + jwt}, {"x-refresh-token", "rt-2"}};
    return std::make_shared<kelnet::Response>(200, std::move(headers), "");
  };
  EXPECT_EQ(Outcome(manager->RefreshAccessTokenIfNeeded()).first, jwt);
  EXPECT_EQ(Stored(), "expires=" + std::to_string(kNow + 500) + "&refreshToken=rt-2&token=Bearer%20" + jwt + "&userId=u-1");
}

// What a failed refresh does to the sign-in: a verdict on the refresh token (a refusal, or a
// success whose answer cannot be used) signs out; no verdict (no answer, a server error,
// throttling, a status that is neither) keeps the credentials for the next caller to try again.
struct RefreshFailure {
  const char* name;
  std::function<std::shared_ptr<kelnet::Response>()> answer;
  kelcore::Result code;
  const char* expression;  // of the kel_exception, when it is one of ours
  bool signsOut;
};

// Names the case in test output instead of dumping the struct's bytes.
void PrintTo(const RefreshFailure& failure, std::ostream* out) { *out << failure.name; }

class RefreshFailureTest : public TokenRefreshTest, public ::testing::WithParamInterface<RefreshFailure> {};

TEST_P(RefreshFailureTest, SignsOutOnlyOnAVerdict) {
  transport.autoAnswer = GetParam().answer;
  testing::LogCapture log;
  const auto [token, error] = Outcome(manager->RefreshAccessTokenIfNeeded());
  ASSERT_TRUE(error) << token;
  EXPECT_EQ(kelcore::ExtractResultFromException(error), GetParam().code);
  try {
    std::rethrow_exception(error);
  } catch (const kelcore::kel_exception& e) {
    if (*GetParam().expression) {
      EXPECT_EQ(e.Expression(), GetParam().expression);
    }
    if (std::string_view(GetParam().name) == "MissingNbf") {
      auto* missing = dynamic_cast<const kelcore::missing_key_exception*>(&e);
      ASSERT_NE(missing, nullptr);
      EXPECT_EQ(missing->Key(), "nbf");
      EXPECT_EQ(missing->TypeName(), "ostriolib::JwtTokenData");
    }
    EXPECT_EQ(std::string(e.what()).find("old"), std::string::npos);
  }
  EXPECT_EQ(log.AllText().find("rt-1"), std::string::npos);
  if (GetParam().signsOut) {
    EXPECT_EQ(manager->GetAccessToken().View(), "");
    EXPECT_EQ(manager->GetRefreshToken().View(), "");
    EXPECT_EQ(Stored(), "");
    return;
  }
  EXPECT_EQ(manager->GetAccessToken().View(), "old");
  EXPECT_EQ(manager->GetRefreshToken().View(), "rt-1");
  EXPECT_EQ(Stored(), Record(kNow + 3600));
  EXPECT_TRUE(manager->IsUserSignedIn());
  EXPECT_TRUE(Outcome(manager->RefreshAccessTokenIfNeeded()).second);  // the next caller asks again
  EXPECT_EQ(transport.Requests().size(), 2u);
}

const std::string kGoodJwt = testing::MakeJwt(testing::ClaimsJson(kNow + 86400));
const kelcore::Result kMissingKeyCode =
    kelcore::ExtractResultFromException(std::make_exception_ptr(kelcore::missing_key_exception("nbf", "x")));

std::function<std::shared_ptr<kelnet::Response>()> Status(int status) {
  return [status] { return RefreshAnswer(status, "Bearer " + kGoodJwt, "rt-2"); };
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RefreshFailureTest,
    ::testing::Values(
        RefreshFailure{"Status400", Status(400), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", true},
        RefreshFailure{"Status401", Status(401), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", true},
        RefreshFailure{"NoAuthorization", [] { return RefreshAnswer(200, std::nullopt, "rt-2"); },
                       kelcore::kErrorRefreshRejected, "bearerAuthToken.empty()", true},
        RefreshFailure{"NoRefreshToken", [] { return RefreshAnswer(200, "Bearer " + kGoodJwt, std::nullopt); },
                       kelcore::kErrorRefreshRejected, "refreshToken.empty()", true},
        // Base64 padding in a refresh token: stored raw, it would make the record unreadable.
        RefreshFailure{"RefreshTokenTheRecordCannotCarry", [] { return RefreshAnswer(200, "Bearer " + kGoodJwt, "rt=="); },
                       kelcore::kErrorRefreshRejected,
                       "!CredentialRecordCanCarry(accessToken.View()) || !CredentialRecordCanCarry(refreshToken.View())",
                       true},
        RefreshFailure{"OneDotJwt", [] { return RefreshAnswer(200, "Bearer abc.def", "rt-2"); },
                       kelcore::kErrorRefreshRejected, "decodedPayload.empty()", true},
        RefreshFailure{"MissingNbf",
                       [] { return RefreshAnswer(200, "Bearer " + testing::MakeJwt(testing::ClaimsJson(kNow, false)), "rt-2"); },
                       kMissingKeyCode, "", true},
        RefreshFailure{"PayloadNotJson", [] { return RefreshAnswer(200, "Bearer " + testing::MakeJwt("{nope"), "rt-2"); },
                       kelcore::kErrorFailed, "", true},
        RefreshFailure{"NoResponse", [] { return std::shared_ptr<kelnet::Response>(); }, kelcore::kErrorNoResponse,
                       "!response", false},
        RefreshFailure{"Status429", Status(429), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", false},
        RefreshFailure{"Status500", Status(500), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", false},
        RefreshFailure{"Status503", Status(503), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", false},
        RefreshFailure{"Status199", Status(199), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", false},
        RefreshFailure{"Status302", Status(302), kelcore::kErrorRefreshRejected, "!response->IsSuccess()", false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TokenRefreshTest, TheRefreshTokenStaysOneSegmentOfThePath) {
  const std::pair<std::string, std::string> cases[] = {
      {"../../../../graphql?", "..%2F..%2F..%2F..%2Fgraphql%3F"},
      {"..", "%2E%2E"},
      {"a b#c\x01", "a%20b%23c%01"},
      {"eyJ0.eyJ1-_~", "eyJ0.eyJ1-_~"},
  };
  transport.autoAnswer = [] { return RefreshAnswer(401, std::nullopt, std::nullopt); };
  for (const auto& [token, segment] : cases) {
    SignIn(kNow, token);
    Outcome(manager->RefreshAccessTokenIfNeeded());
    ASSERT_FALSE(transport.Requests().empty());
    EXPECT_EQ(transport.Requests().back().url.View(),
              "https://api.ostrio.test:8443/v2/auth/refresh_tokens/" + segment + "/apply");
  }
}

TEST_F(TokenRefreshTest, NoRequestWithoutTokens) {
  transport.startResult = false;
  EXPECT_EQ(kelcore::ExtractResultFromException(Outcome(manager->RefreshAccessTokenIfNeeded()).second),
            kelcore::kErrorFailed);  // the POST could not start: no verdict, still signed in
  EXPECT_EQ(manager->GetRefreshToken().View(), "rt-1");
  manager->Logout();
  EXPECT_EQ(kelcore::ExtractResultFromException(Outcome(manager->RefreshAccessTokenIfNeeded()).second),
            kelcore::kErrorNotSignedIn);

  manager->StoreCredentials("expires=" + std::to_string(kNow) + "&refreshToken=&token=Bearer%20old&userId=u-1");
  ASSERT_EQ(manager->LoadCredentials(), 0);
  EXPECT_EQ(kelcore::ExtractResultFromException(Outcome(manager->RefreshAccessTokenIfNeeded()).second),
            kelcore::kErrorNoRefreshToken);
  EXPECT_EQ(Stored(), "");
}

TEST_F(TokenRefreshTest, OneRequestForFiftyConcurrentCallers) {
  constexpr int kCallers = 50;
  std::vector<Future<ImmutableString>> results(kCallers);
  std::latch start(kCallers);
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&, i] {
      start.arrive_and_wait();
      results[i] = manager->RefreshAccessTokenIfNeeded();
    });
  }
  for (auto& caller : callers) caller.join();
  ASSERT_EQ(transport.Requests().size(), 1u);

  // While it runs, every other caller got the old token at once.
  std::vector<std::size_t> waiting;
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (results[i].IsReady()) {
      EXPECT_EQ(results[i].Get().View(), "old");
    } else {
      waiting.push_back(i);
    }
  }
  ASSERT_EQ(waiting.size(), 1u);

  const std::string jwt = testing::MakeJwt(testing::ClaimsJson(kNow + 86400));
  transport.AnswerFirst(RefreshAnswer(200, "Bearer " + jwt, "rt-2"));
  EXPECT_EQ(Outcome(results[waiting[0]]).first, jwt);
  // The marker is gone: the next caller is answered from the new, valid token.
  EXPECT_EQ(Outcome(manager->RefreshAccessTokenIfNeeded()).first, jwt);
  EXPECT_EQ(transport.Requests().size(), 1u);
}

// A sign-in callback and a finishing refresh both write the tokens while other threads read them
// and ask for refreshes. Every token member is shared this way; ThreadSanitizer (the tsan preset)
// reports any access that is not under the manager's lock.
TEST_F(TokenRefreshTest, SignInAndRefreshOverlapReadersSafely) {
  constexpr int kRounds = 20;
  constexpr int kReaders = 3;
  constexpr int kReads = 40;
  const std::string jwt = testing::MakeJwt(testing::ClaimsJson(kNow + 86400));
  const std::string callback = "ostrio-test://ostrio#" + Record(kNow + 7200, "rt-9");
  for (int round = 0; round < kRounds; ++round) {
    SignIn(kNow + 3600);
    const auto refresh = manager->RefreshAccessTokenIfNeeded();
    const auto requests = transport.Requests();
    ASSERT_EQ(requests.size(), static_cast<std::size_t>(round + 1));

    std::latch start(kReaders + 2);
    std::vector<std::thread> threads;
    std::vector<std::vector<Future<ImmutableString>>> asked(kReaders);
    threads.emplace_back([&] {
      start.arrive_and_wait();
      manager->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(callback));
    });
    threads.emplace_back([&] {
      start.arrive_and_wait();
      ScriptedPost::Complete(requests.back().completion, RefreshAnswer(200, "Bearer " + jwt, "rt-2"));
    });
    for (int reader = 0; reader < kReaders; ++reader) {
      threads.emplace_back([&, reader] {
        start.arrive_and_wait();
        for (int i = 0; i < kReads; ++i) {
          EXPECT_FALSE(manager->GetAccessToken().empty());
          EXPECT_FALSE(manager->GetRefreshToken().empty());
          EXPECT_TRUE(manager->IsUserSignedIn());
          asked[reader].push_back(manager->RefreshAccessTokenIfNeeded());
        }
      });
    }
    for (auto& thread : threads) thread.join();
    // The refreshed token, or the signed-in one when the callback landed in between.
    EXPECT_THAT(Outcome(refresh).first, ::testing::AnyOf(jwt, "old"));
    // Each caller got a token (the old one, the signed-in one or the refreshed one), and no
    // claim is left for the next round.
    for (const auto& futures : asked) {
      for (const auto& future : futures) EXPECT_FALSE(Outcome(future).first.empty());
    }
    EXPECT_TRUE(manager->IsAccessTokenValid());
  }
}

TEST_F(TokenRefreshTest, PendingRefreshWithNoCachedTokenFails) {
  auto first = manager->RefreshAccessTokenIfNeeded();
  ASSERT_EQ(transport.Requests().size(), 1u);
  manager->Logout();
  auto second = manager->RefreshAccessTokenIfNeeded();
  ASSERT_TRUE(second.IsReady());
  try {
    second.Get();
    FAIL();
  } catch (const kelcore::kel_exception& e) {
    EXPECT_EQ(e.GetResult(), kelcore::kErrorNotSignedIn);
    EXPECT_EQ(e.Message(), "Refresh access token pending, with no cached access token.");
  }
  transport.AnswerFirst(RefreshAnswer(401, std::nullopt, std::nullopt));
  EXPECT_TRUE(Outcome(first).second);
}

TEST_F(TokenRefreshTest, ARefreshThatCannotStartLeavesNothingPending) {
  manager->SetClock([]() -> std::chrono::system_clock::time_point { throw std::runtime_error("no clock"); });
  EXPECT_THROW(manager->RefreshAccessTokenIfNeeded(), std::runtime_error);
  manager->SetClock([] { return std::chrono::system_clock::time_point(std::chrono::seconds(kNow)); });
  transport.autoAnswer = [] { return RefreshAnswer(200, "Bearer " + kGoodJwt, "rt-2"); };
  EXPECT_EQ(Outcome(manager->RefreshAccessTokenIfNeeded()).first, kGoodJwt);
  EXPECT_EQ(transport.Requests().size(), 1u);
}

TEST_F(TokenRefreshTest, ManagerGoneBeforeTheAnswer) {
  auto pending = manager->RefreshAccessTokenIfNeeded();
  manager.reset();
  transport.AnswerFirst(RefreshAnswer(200, "Bearer " + kGoodJwt, "rt-2"));
  const auto error = Outcome(pending).second;
  EXPECT_EQ(kelcore::ExtractResultFromException(error), kelcore::kErrorPreconditionFailed);
  try {
    std::rethrow_exception(error);
  } catch (const kelcore::kel_exception& e) {
    EXPECT_EQ(e.Expression(), "!strongThis");
  }
}

}  // namespace
}  // namespace ostriolib

#include "OstrioAuthManager.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>

#include "AuthSupport.h"
#include "JwtTokenData.h"
#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"
#include "kelcore/UrlSchemeRegistration.h"
#include "kelnet/Constants.h"
#include "kelnet/URL.h"
#include "LibraryConfiguration.h"
#include "PlatformSettings.h"
#include "RefreshLock.h"

namespace ostriolib {

using kelcore::ImmutableString;
using kelcore::Result;
using kelcore::async::Future;
using kelcore::async::MakeFailedFuture;
using kelcore::async::MakeReadyFuture;
using kelcore::async::Promise;

namespace {

constexpr std::string_view kSignInUrlTemplate =
    "https://accounts:domain/welcome?legacy_auth=false&auth_callback=:auth_callback";
constexpr std::string_view kRefreshUrlTemplate = "https://api:domain/v2/auth/refresh_tokens/:refresh_token/apply";
constexpr std::string_view kCallbackHost = "ostrio";
constexpr std::string_view kSchemeDisplayName = "URL: Ostrio Sign In Protocol";
constexpr std::string_view kHeaderClient = "x-ostrio-client";
constexpr std::string_view kHeaderPreview = "x-preview-environment";
constexpr std::string_view kTraceCategory = "ostriolib";

// A callback URL is the scheme, the host and a credential record; anything longer is not one.
constexpr std::size_t kMaxCallbackUrlBytes = kMaxCredentialRecordBytes + 1024;

// A refresh that got no verdict on its refresh token: no answer at all, a server error, throttling,
// or a status that is neither success nor refusal (a proxy's or a captive portal's). The token may
// well be good, so the failure keeps the credentials (doc/decisions/017).
class RefreshUnanswered : public kelcore::kel_exception {
 public:
  explicit RefreshUnanswered(const kelcore::kel_exception& failure) : kelcore::kel_exception(failure) {}
};

bool IsRefusal(int status) { return status >= 400 && status <= 499 && status != kelnet::kStatusTooManyRequests; }

bool IsUnanswered(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const RefreshUnanswered&) {
    return true;
  } catch (...) {
    return false;
  }
}

// Initialize's work happens once per process, whichever instance is asked.
std::atomic<bool> sInitialized{false};

const kelnet::HeaderMap& FixedRefreshHeaders() {
  static const kelnet::HeaderMap headers{
      {kelnet::kHEADER_CONTENT_TYPE, kelnet::kHEADER_CONTENT_TYPE_APPLICATION_WWW_FORM_URLENCODED}};
  return headers;
}

std::u16string ServiceName() { return std::u16string(OstrioAuthManager::kCredentialService); }

}  // namespace

OstrioAuthManager::OstrioAuthManager()
    : OstrioAuthManager(PlatformSettings::CreateKeychain(), PlatformSettings::CreateUrlOpener()) {}

OstrioAuthManager::OstrioAuthManager(kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> keychain,
                                     kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper> osUtils)
    : keychain_(std::move(keychain)),
      osUtils_(std::move(osUtils)),
      clock_([] { return std::chrono::system_clock::now(); }),
      post_(&kelnet::POST) {}

OstrioAuthManager::~OstrioAuthManager() = default;

std::shared_ptr<OstrioAuthManager> OstrioAuthManager::GetSharedThis() {
  return SharedFromThisAs<OstrioAuthManager>();
}

// ---- configuration ----

int OstrioAuthManager::Initialize(const ImmutableString& clientId, const ImmutableString& redirectUri,
                                  const EnvironmentType& environment, const ImmutableString& previewValue) {
  if (clientId.empty() || redirectUri.empty()) return kelcore::kErrorInvalidArgument;
  if (sInitialized.exchange(true)) return kelcore::kResultOK;
  std::lock_guard lock(stateMutex_);
  clientId_ = clientId;
  redirectUri_ = redirectUri;
  environmentType_ = environment;
  previewValue_ = previewValue;
  RegisterUriScheme(redirectUri);
  return kelcore::kResultOK;
}

void OstrioAuthManager::Configure(const ImmutableString& clientId, const ImmutableString& redirectUri,
                                  EnvironmentType environment, const ImmutableString& previewValue) {
  std::lock_guard lock(stateMutex_);
  clientId_ = clientId;
  redirectUri_ = redirectUri;
  environmentType_ = environment;
  previewValue_ = previewValue;
}

void OstrioAuthManager::SetClock(Clock clock) {
  std::lock_guard lock(stateMutex_);
  clock_ = std::move(clock);
}

void OstrioAuthManager::SetPostFunction(PostFunction post) {
  std::lock_guard lock(stateMutex_);
  post_ = std::move(post);
}

void OstrioAuthManager::SetKeychainUtils(const kelcore::classref::InterfaceRef<kelcore::IKeychainUtils>& keychain) {
  std::lock_guard lock(stateMutex_);
  keychain_ = keychain;
}

void OstrioAuthManager::SetOSUtilsWrapper(const kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>& osUtils) {
  std::lock_guard lock(stateMutex_);
  osUtils_ = osUtils;
}

void OstrioAuthManager::RegisterUriScheme(const ImmutableString& scheme) {
  kelcore::UrlSchemeRegistration::Handler handler;
  handler.scheme = scheme.ToStdString();
  handler.displayName = std::string(kSchemeDisplayName);
  const Result result = kelcore::UrlSchemeRegistration::Register(handler);
  if (kelcore::ResultFailed(result) && kelcore::logging::IsTraceEnabled(kTraceCategory, 5)) {
    kelcore::logging::Trace(kTraceCategory, 5, "Ostrio URI Scheme registration failed!");
  }
}

// ---- tokens in memory ----

ImmutableString OstrioAuthManager::GetAccessToken() {
  std::lock_guard lock(stateMutex_);
  return accessToken_;
}

ImmutableString OstrioAuthManager::GetRefreshToken() {
  std::lock_guard lock(stateMutex_);
  return refreshToken_;
}

void OstrioAuthManager::SetTokens(const CredentialRecord& record) {
  std::lock_guard lock(stateMutex_);
  userId_ = record.userId;
  accessToken_ = record.accessToken;
  refreshToken_ = record.refreshToken;
  expiresAt_ = record.expiresAt;
}

bool OstrioAuthManager::IsAccessTokenValid() {
  if (GetAccessToken().empty()) return false;
  ImmutableString expiresAt;
  Clock clock;
  {
    std::lock_guard lock(stateMutex_);
    expiresAt = expiresAt_;
    clock = clock_;
  }
  const std::int64_t expiry = ParseSeconds(expiresAt.View());
  using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
  const std::int64_t ticks = std::chrono::duration_cast<Ticks>(clock().time_since_epoch()).count();
  const std::int64_t now = ticks / 10'000'000;
  // Same as expiry - now > 3600, without the overflow a far-past expiry from a tampered record
  // would cause (and that would read as valid).
  return expiry > now + 3600;
}

// ---- the credential store ----

kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> OstrioAuthManager::Keychain() {
  std::lock_guard lock(stateMutex_);
  return keychain_;
}

std::u16string OstrioAuthManager::GetCredentialAccountName() {
  auto keychain = Keychain();
  const std::u16string user = keychain ? keychain->GetUserName() : std::u16string();
  return u"credentials_" + kelcore::UTF8ToUTF16(kelcore::UTF16ToUTF8(user));
}

std::u16string OstrioAuthManager::ReadStoredRecord() {
  auto keychain = Keychain();
  if (!keychain) return {};
  return keychain->GetPassword(ServiceName(), GetCredentialAccountName(), true);
}

bool OstrioAuthManager::ParseCredentials(std::string_view text, ImmutableString& userId, ImmutableString& accessToken,
                                         ImmutableString& refreshToken, ImmutableString& expiresAt) {
  CredentialRecord record{userId, accessToken, refreshToken, expiresAt};
  const bool parsed = ParseCredentialRecord(text, record);
  userId = record.userId;
  accessToken = record.accessToken;
  refreshToken = record.refreshToken;
  expiresAt = record.expiresAt;
  return parsed;
}

int OstrioAuthManager::LoadCredentials() {
  if (!GetAccessToken().empty()) return kelcore::kResultOK;
  const std::u16string stored = ReadStoredRecord();
  if (stored.empty()) return kelcore::kErrorNotSignedIn;
  CredentialRecord record;
  if (!ParseCredentialRecord(kelcore::UTF16ToUTF8(stored), record)) return kelcore::kErrorBadCredentials;
  SetTokens(record);
  return kelcore::kResultOK;
}

void OstrioAuthManager::SaveCredentials(const ImmutableString& userId, const ImmutableString& accessToken,
                                        const ImmutableString& refreshToken, const ImmutableString& expiresAt) {
  StoreCredentials(WriteCredentialRecord({userId, accessToken, refreshToken, expiresAt}));
}

void OstrioAuthManager::StoreCredentials(std::string_view text) {
  auto keychain = Keychain();
  if (!keychain) return;
  // The store replaces the old record only once the new one is in place: a write that fails
  // (a full disk, a refused folder) leaves the previous sign-in rather than none.
  const Result result =
      keychain->AddPassword(ServiceName(), GetCredentialAccountName(), kelcore::UTF8ToUTF16(text), true);
  if (kelcore::ResultFailed(result)) {
    kelcore::logging::LogWarning(kTraceCategory, "Could not store the credentials; the stored record is unchanged",
                                 {{"result", ResultText(result)}});
  }
}

bool OstrioAuthManager::InvalidateCredentials() {
  auto keychain = Keychain();
  if (!keychain) return false;
  const std::u16string account = GetCredentialAccountName();
  if (keychain->GetPassword(ServiceName(), account, true).empty()) return false;
  const bool passwordRemoved = keychain->RemovePassword(ServiceName(), account, true);
  if (!passwordRemoved) {
    DoSimpleAssert("passwordRemoved", "ostriolib::OstrioAuthManager::InvalidateCredentials", __FILE__, __LINE__);
    return false;
  }
  return true;
}

bool OstrioAuthManager::IsUserSignedIn() {
  if (LoadCredentials() < 0) return false;
  if (IsAccessTokenValid()) return true;
  return !GetRefreshToken().empty();
}

int OstrioAuthManager::Logout() {
  {
    std::lock_guard lock(stateMutex_);
    accessToken_ = {};
    refreshToken_ = {};
    expiresAt_ = {};
    userId_ = {};
    loginCallback_ = nullptr;
  }
  return InvalidateCredentials() ? kelcore::kResultOK : kelcore::kErrorInvalidArgument;
}

// ---- browser sign-in ----

std::string OstrioAuthManager::UrlEncode(std::string_view text) { return PercentEncode(text, false); }

std::string OstrioAuthManager::EncodePathSegment(std::string_view text) {
  // "." and ".." are dot-segments, which a URL parser removes along with the segment before.
  if (text == ".") return "%2E";
  if (text == "..") return "%2E%2E";
  return PercentEncode(text, true);
}

ImmutableString OstrioAuthManager::GetAuthCallbackUrl(bool encode) {
  std::string scheme;
  {
    std::lock_guard lock(stateMutex_);
    scheme = redirectUri_.ToStdString();
  }
  if (encode) scheme = UrlEncode(scheme);
  return ImmutableString(scheme + std::string(kelnet::kURI_SCHEME_SEPARATOR.View()) + std::string(kCallbackHost));
}

void OstrioAuthManager::PostLoginCallback(int result) {
  auto executor = kelcore::async::GetPreTerminationExecutor();
  if (!executor) return;
  {
    std::lock_guard lock(stateMutex_);
    if (!loginCallback_) return;
  }
  std::weak_ptr<OstrioAuthManager> weakThis = WeakFromThisAs<OstrioAuthManager>();
  // The callback is read when the task runs: a Logout in between cancels it.
  executor->Post([weakThis, result] {
    auto strongThis = weakThis.lock();
    if (!strongThis) return;
    std::function<void(int)> callback;
    {
      std::lock_guard lock(strongThis->stateMutex_);
      callback = strongThis->loginCallback_;
    }
    if (callback) callback(result);
  });
}

int OstrioAuthManager::Login(const std::function<void(int)>& callback) {
  if (callback) {
    std::lock_guard lock(stateMutex_);
    loginCallback_ = callback;
  }

  const std::u16string stored = ReadStoredRecord();
  CredentialRecord record;
  if (!stored.empty() && ParseCredentialRecord(kelcore::UTF16ToUTF8(stored), record)) {
    SetTokens(record);
    PostLoginCallback(kelcore::kResultAlreadySignedIn);
    return kelcore::kResultAlreadySignedIn;
  }

  EnvironmentType environment;
  {
    std::lock_guard lock(stateMutex_);
    environment = environmentType_;
  }
  const kelnet::URL ostrioJwtLoginUrl = kelnet::ReplaceInURL(
      kSignInUrlTemplate, {{ImmutableString(":auth_callback"), GetAuthCallbackUrl(true)},
                           {ImmutableString(":domain"), GetDomainSuffix(environment)}});
  if (ostrioJwtLoginUrl == kelnet::URL()) {
    constexpr std::string_view kMessage = "Failed to get ostrio Jwt login URL.";
    constexpr std::string_view kExpression = "ostrioJwtLoginUrl == kelnet::URL()";
    const std::string url = ostrioJwtLoginUrl.Text().ToStdString();
    if (kelcore::logging::IsLoggingEnabled(kelcore::logging::Level::Error)) {
      kelcore::logging::Record entry;
      entry.level = kelcore::logging::Level::Error;
      entry.category = std::string(kTraceCategory);
      entry.message = std::string(kMessage);
      entry.fields = {{"ostrio Jwt Login URL", url},
                      {"expression", std::string(kExpression)},
                      {"stack trace", StackTrace(10)}};
      entry.sourcePath = kelcore::SourcePathWithoutExtension(__FILE__);
      entry.line = __LINE__;
      entry.function = "ostriolib::OstrioAuthManager::Login";
      kelcore::logging::Log(std::move(entry));
    }
    if (kelcore::logging::IsTraceEnabled(kTraceCategory, 3)) {
      kelcore::logging::Trace(kTraceCategory, 3,
                              std::string(kMessage) + ", ostrio Jwt Login URL: " + kelcore::logging::QuoteJSON(url) +
                                  ", expression: " + kelcore::logging::QuoteJSON(kExpression));
    }
    return kelcore::kErrorInvalidArgument;
  }

  kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper> osUtils;
  {
    std::lock_guard lock(stateMutex_);
    osUtils = osUtils_;
  }
  const bool opened = osUtils && osUtils->OpenURL(ostrioJwtLoginUrl.Text().ToStdString());
  return opened ? kelcore::kResultOK : kelcore::kErrorInvalidArgument;
}

int OstrioAuthManager::ProcessRedirectedCallbackUrl(const kelcore::U8Str& url) {
  int result = kelcore::kErrorNoServerResponse;
  const std::string_view text = kelcore::AsStringView(url);
  const std::string expected = UpperCase(GetAuthCallbackUrl(false).View());
  if (text.size() > kMaxCallbackUrlBytes) {
    kelcore::logging::LogWarning(kTraceCategory, "Ignoring a sign-in callback URL longer than the bound",
                                 {{"bytes", std::to_string(text.size())},
                                  {"bound", std::to_string(kMaxCallbackUrlBytes)}});
    result = kelcore::kErrorInvalidArgument;
  } else if (kelcore::UTF16ToUTF8(kelcore::UTF8ToUTF16(text)) != text) {
    // The store keeps text: a record that is not UTF-8 would come back other than it went in.
    kelcore::logging::LogWarning(kTraceCategory, "Ignoring a sign-in callback URL that is not UTF-8");
    result = kelcore::kErrorInvalidArgument;
  } else if (UpperCase(text).find(expected) == std::string::npos) {
    result = kelcore::kErrorInvalidArgument;
  } else if (const auto hash = text.find('#'); hash != std::string_view::npos) {
    const std::string_view fragment = text.substr(hash + 1);
    // Stored as received, before parsing: what the service sent is what the next start sees.
    StoreCredentials(fragment);
    CredentialRecord record;
    if (ParseCredentialRecord(fragment, record)) {
      SetTokens(record);
      result = kelcore::kResultOK;
    } else {
      result = kelcore::kErrorBadCredentials;
    }
  }
  PostLoginCallback(result);
  return result;
}

// ---- token refresh ----

void OstrioAuthManager::EndRefresh(std::uint64_t generation) {
  std::lock_guard lock(stateMutex_);
  if (refreshInFlight_ != generation) return;
  refreshInFlight_ = 0;
  pendingRefresh_ = {};
}

Future<ImmutableString> OstrioAuthManager::RefreshAccessTokenIfNeeded() {
  const ImmutableString cached = GetAccessToken();
  std::uint64_t generation = 0;
  {
    std::lock_guard lock(stateMutex_);
    if (refreshInFlight_ != 0) {
      if (!cached.empty()) return MakeReadyFuture(cached);
      return MakeFailedFuture<ImmutableString>(kelcore::kErrorNotSignedIn,
                                               "Refresh access token pending, with no cached access token.");
    }
    generation = refreshInFlight_ = ++refreshGeneration_;
  }

  Future<ImmutableString> refresh;
  try {
    refresh = GetOstrioAccessToken(false);
  } catch (...) {
    // Nothing started: a claim left behind would answer every later caller with "pending".
    EndRefresh(generation);
    throw;
  }
  std::weak_ptr<OstrioAuthManager> weakThis = WeakFromThisAs<OstrioAuthManager>();
  Future<ImmutableString> result = refresh.Then([weakThis, generation](Future<ImmutableString> done) {
    auto strongThis = weakThis.lock();
    KEL_THROW_IF_IN(!strongThis, kelcore::kErrorPreconditionFailed, "",
                    "ostriolib::OstrioAuthManager::RefreshAccessTokenIfNeeded::<lambda_1>::operator ()");
    strongThis->EndRefresh(generation);
    return done.Get();
  });
  {
    std::lock_guard lock(stateMutex_);
    if (refreshInFlight_ == generation) pendingRefresh_ = refresh;
  }
  return result;
}

Future<ImmutableString> OstrioAuthManager::GetOstrioAccessToken(bool forceRefresh) {
  const ImmutableString token = GetAccessToken();
  if (token.empty()) return MakeFailedFuture<ImmutableString>(kelcore::kErrorNotSignedIn);
  if (IsAccessTokenValid() && !forceRefresh) return MakeReadyFuture(token);

  // Other processes of this user (a second host, a script running the CLI) refresh the same stored
  // token, and the service rotates refresh tokens: only the holder of the per-user lock refreshes.
  // The lock is usually free and taken at once; when another process holds it, it is waited for
  // off the caller's thread.
  const std::filesystem::path folder = PlatformSettings::StateDirectory();
  bool busy = false;
  auto lock = RefreshLock::Acquire(folder, false, &busy);
  if (!busy) return RefreshHoldingLock(std::move(lock), forceRefresh);
  kelcore::async::Promise<std::shared_ptr<RefreshLock>> held;
  kelcore::async::GetDefaultExecutor()->Post([held, folder] { held.SetValue(RefreshLock::Acquire(folder, true)); });
  std::weak_ptr<OstrioAuthManager> weakThis = WeakFromThisAs<OstrioAuthManager>();
  return held.GetFuture().ThenOnSuccess(
      [weakThis, forceRefresh](std::shared_ptr<RefreshLock> waited) -> Future<ImmutableString> {
        auto strongThis = weakThis.lock();
        KEL_THROW_IF_IN(!strongThis, kelcore::kErrorPreconditionFailed, "",
                        "ostriolib::OstrioAuthManager::GetOstrioAccessToken::<lambda_2>::operator ()");
        return strongThis->RefreshHoldingLock(std::move(waited), forceRefresh);
      });
}

void OstrioAuthManager::AdoptStoredCredentials() {
  const std::u16string stored = ReadStoredRecord();
  if (stored.empty()) return;
  CredentialRecord record;
  if (!ParseCredentialRecord(kelcore::UTF16ToUTF8(stored), record)) return;
  if (record.refreshToken == GetRefreshToken()) return;
  SetTokens(record);
}

Future<ImmutableString> OstrioAuthManager::RefreshHoldingLock(std::shared_ptr<RefreshLock> lock, bool forceRefresh) {
  // Another process may have refreshed while this one waited, or since it last read the store.
  AdoptStoredCredentials();
  if (IsAccessTokenValid() && !forceRefresh) return MakeReadyFuture(GetAccessToken());
  const ImmutableString refresh = GetRefreshToken();
  if (refresh.empty()) {
    Logout();
    return MakeFailedFuture<ImmutableString>(kelcore::kErrorNoRefreshToken);
  }

  std::weak_ptr<OstrioAuthManager> weakThis = WeakFromThisAs<OstrioAuthManager>();
  // The lock is held until the new credentials are stored (or the refresh failed).
  return RefreshJwtAccessToken(kelcore::ToU8Str(refresh.View())).Then([weakThis, lock](Future<void> done) mutable {
    // Released as this continuation ends, before the caller's claim is: a refresh that follows at
    // once in this process must find the lock free, not wait for a continuation's destruction.
    const std::shared_ptr<RefreshLock> held = std::move(lock);
    auto strongThis = weakThis.lock();
    KEL_THROW_IF_IN(!strongThis, kelcore::kErrorPreconditionFailed, "",
                    "ostriolib::OstrioAuthManager::GetOstrioAccessToken::<lambda_1>::operator ()");
    const std::exception_ptr error = done.GetException();
    const Result code = kelcore::ExtractResultFromException(error);
    if (kelcore::ResultFailed(code)) {
      // A refresh token the service turned down will not work later either; one that got no
      // verdict is tried again by the next caller, and the user stays signed in meanwhile.
      const bool keep = IsUnanswered(error);
      if (kelcore::logging::IsTraceEnabled(kTraceCategory, 3)) {
        kelcore::logging::Trace(kTraceCategory, 3,
                                std::string("Ostrio access token refresh failed, ") +
                                    (keep ? "keeping the credentials: " : "signing out: ") + ResultText(code));
      }
      if (!keep) strongThis->Logout();
      std::rethrow_exception(error);
    }
    ImmutableString accessToken, userId, refreshToken, expiresAt;
    accessToken = strongThis->GetAccessToken();
    refreshToken = strongThis->GetRefreshToken();
    {
      std::lock_guard lock(strongThis->stateMutex_);
      userId = strongThis->userId_;
      expiresAt = strongThis->expiresAt_;
    }
    strongThis->SaveCredentials(userId, accessToken, refreshToken, expiresAt);
    if (kelcore::logging::IsTraceEnabled(kTraceCategory, 5)) {
      kelcore::logging::Trace(kTraceCategory, 5, "Ostrio access token refreshed, expires at " + expiresAt.ToStdString());
    }
    return accessToken;
  });
}

Future<void> OstrioAuthManager::RefreshJwtAccessToken(const kelcore::U8Str& refreshToken) {
  EnvironmentType environment;
  {
    std::lock_guard lock(stateMutex_);
    environment = environmentType_;
  }
  const ImmutableString domain = GetDomainSuffix(environment);
  const kelnet::URL url = kelnet::ReplaceInURL(
      kRefreshUrlTemplate,
      {{ImmutableString(":refresh_token"), ImmutableString(EncodePathSegment(kelcore::AsStringView(refreshToken)))},
       {ImmutableString(":domain"), domain}});

  std::weak_ptr<OstrioAuthManager> weakThis = WeakFromThisAs<OstrioAuthManager>();
  return PostForAuthorization(url.Text(), nullptr).Then([weakThis](Future<std::shared_ptr<kelnet::Response>> done) {
    constexpr const char* kFunction = "ostriolib::OstrioAuthManager::RefreshJwtAccessToken::<lambda_1>::operator ()";
    auto strongThis = weakThis.lock();
    KEL_THROW_IF_IN(!strongThis, kelcore::kErrorPreconditionFailed, "", kFunction);
    const std::shared_ptr<kelnet::Response> response = done.Get();
    try {
      KEL_THROW_IF_IN(!response, kelcore::kErrorNoResponse, "", kFunction);
      KEL_THROW_IF_IN(!response->IsSuccess(), kelcore::kErrorRefreshRejected, "", kFunction);
    } catch (const kelcore::kel_exception& failure) {
      if (!response || !IsRefusal(response->StatusCode())) throw RefreshUnanswered(failure);
      throw;
    }

    const ImmutableString bearerAuthToken = response->LastHeader(kelnet::kHEADER_AUTHORIZATION.View());
    KEL_THROW_IF_IN(bearerAuthToken.empty(), kelcore::kErrorRefreshRejected, "", kFunction);
    const std::string_view bearer = bearerAuthToken.View();
    const std::size_t space = bearer.find(' ');
    const ImmutableString accessToken(space == std::string_view::npos ? bearer : bearer.substr(space + 1));

    const ImmutableString refreshToken = response->LastHeader(kelnet::kHEADER_REFRESH_TOKEN.View());
    KEL_THROW_IF_IN(refreshToken.empty(), kelcore::kErrorRefreshRejected, "", kFunction);
    KEL_THROW_IF_IN(!CredentialRecordCanCarry(accessToken.View()) || !CredentialRecordCanCarry(refreshToken.View()),
                    kelcore::kErrorRefreshRejected, "", kFunction);

    const ImmutableString decodedPayload = DecodeJwtPayload(accessToken);
    KEL_THROW_IF_IN(decodedPayload.empty(), kelcore::kErrorRefreshRejected, "", kFunction);
    const JwtTokenData claims = ParseJwtTokenData(decodedPayload.View());

    const ImmutableString expiresAt(std::to_string(claims.exp));
    KEL_THROW_IF_IN(expiresAt.empty(), kelcore::kErrorNoExpiry, "", kFunction);

    std::lock_guard lock(strongThis->stateMutex_);
    strongThis->refreshToken_ = refreshToken;
    strongThis->accessToken_ = accessToken;
    strongThis->expiresAt_ = expiresAt;
  });
}

ImmutableString OstrioAuthManager::DecodeJwtPayload(const ImmutableString& token) {
  return ImmutableString(ostriolib::DecodeJwtPayload(token.View()));
}

Future<std::shared_ptr<kelnet::Response>> OstrioAuthManager::PostForAuthorization(
    const ImmutableString& url, const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body) {
  kelnet::HeaderMap headers = FixedRefreshHeaders();
  PostFunction post;
  {
    std::lock_guard lock(stateMutex_);
    headers.emplace(ImmutableString(kHeaderClient), clientId_);
    if (environmentType_ == kEnvironmentDevelopment && !previewValue_.empty()) {
      headers.emplace(ImmutableString(kHeaderPreview), previewValue_);
    }
    post = post_;
  }

  Promise<std::shared_ptr<kelnet::Response>> promise(kelcore::async::GetDefaultExecutor());
  auto completion = [promise](const kelcore::utility::Guid&, const std::shared_ptr<kelnet::Response>& response) {
    promise.SetValue(response);
  };
  kelnet::Configuration configuration;
  configuration.caBundlePath = PlatformSettings::CaBundlePath();
  if (!post(kelcore::utility::Guid::CreateUnique(), completion, url, body, headers, configuration)) {
    return MakeFailedFuture<std::shared_ptr<kelnet::Response>>(
        std::make_exception_ptr(RefreshUnanswered(kelcore::kel_exception(kelcore::kErrorFailed))));
  }
  return promise.GetFuture();
}

// ---- the process-wide instance ----

kelcore::classref::InterfaceRef<IOstrioAuthManager> GetOstrioAuthManager() {
  // Never destroyed: a host thread may ask for the manager while statics are torn down.
  static auto* mutex = new std::mutex;
  static auto* instance = new std::weak_ptr<OstrioAuthManager>;
  std::lock_guard lock(*mutex);
  std::shared_ptr<OstrioAuthManager> strong = instance->lock();
  if (!strong) {
    strong = kelcore::classref::AllocateClassInstance<OstrioAuthManager>().Shared();
    *instance = strong;
  }
  return kelcore::classref::InterfaceRef<IOstrioAuthManager>(strong);
}

}  // namespace ostriolib

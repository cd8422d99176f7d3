#pragma once
// The auth manager: the signed-in user's tokens, their record in the credential store, browser
// sign-in through a custom URL scheme, and the refresh of the access token.
//
// One mutex guards every member and is never held across a network or credential-store call.
// Continuations and the sign-in callback hold only a weak reference to the manager.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "CredentialRecord.h"
#include "kelcore/ClassRef.h"
#include "kelcore/Future.h"
#include "kelcore/Guid.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/KeychainUtils.h"
#include "kelcore/OSUtilsWrapper.h"
#include "kelcore/RecycledMemory.h"
#include "kelcore/Strings.h"
#include "kelnet/Http.h"
#include "kelnet/Response.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/OstrioExport.h"

namespace ostriolib {

class RefreshLock;

class OstrioAuthManager : public IOstrioAuthManager {
  KEL_CLASS_REGISTRATION(OstrioAuthManager, IOstrioAuthManager)

  // The wall clock, so tests can put a token exactly on the one-hour boundary.
  using Clock = std::function<std::chrono::system_clock::time_point()>;
  // kelnet::POST's shape, so tests can answer the refresh request themselves.
  using PostFunction = std::function<bool(const kelcore::utility::Guid& requestId, kelnet::Completion completion,
                                          const kelcore::ImmutableString& url,
                                          std::shared_ptr<const kelcore::allocator::RecycledMemory> body,
                                          const kelnet::HeaderMap& headers,
                                          const kelnet::Configuration& configuration)>;

  static constexpr std::u16string_view kCredentialService = u"com.corvane.ostrio.token";

  // The credential store and URL opener the library's settings name (PlatformSettings); the
  // Secret Service is not probed here.
  OstrioAuthManager();
  OstrioAuthManager(kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> keychain,
                    kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper> osUtils);
  ~OstrioAuthManager() override;

  // IOstrioAuthManager
  int Initialize(const kelcore::ImmutableString& clientId, const kelcore::ImmutableString& redirectUri,
                 const EnvironmentType& environment, const kelcore::ImmutableString& previewValue) override;
  int Login(const std::function<void(int)>& callback) override;
  int ProcessRedirectedCallbackUrl(const kelcore::U8Str& url) override;
  bool IsUserSignedIn() override;
  kelcore::async::Future<kelcore::ImmutableString> RefreshAccessTokenIfNeeded() override;
  int Logout() override;
  void SetKeychainUtils(const kelcore::classref::InterfaceRef<kelcore::IKeychainUtils>& keychain) override;
  void SetOSUtilsWrapper(const kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>& osUtils) override;
  kelcore::ImmutableString GetAccessToken() override;
  kelcore::ImmutableString GetRefreshToken() override;

  virtual std::shared_ptr<OstrioAuthManager> GetSharedThis();


  // Initialize's per-instance part: stores the four values, without the once-per-process guard
  // and without registering the URL scheme. For tests and tools that run several managers in one
  // process.
  void Configure(const kelcore::ImmutableString& clientId, const kelcore::ImmutableString& redirectUri,
                 EnvironmentType environment, const kelcore::ImmutableString& previewValue);
  void SetClock(Clock clock);
  void SetPostFunction(PostFunction post);

  // Reads the stored record into memory unless a token is already there. 0, kErrorNotSignedIn
  // (nothing stored) or kErrorBadCredentials (the record does not parse; memory unchanged).
  int LoadCredentials();
  // Removes the stored record; false when there was none or it could not be removed.
  bool InvalidateCredentials();
  void SaveCredentials(const kelcore::ImmutableString& userId, const kelcore::ImmutableString& accessToken,
                       const kelcore::ImmutableString& refreshToken, const kelcore::ImmutableString& expiresAt);
  // Replaces the stored record by `text`, verbatim.
  void StoreCredentials(std::string_view text);
  static bool ParseCredentials(std::string_view text, kelcore::ImmutableString& userId,
                               kelcore::ImmutableString& accessToken, kelcore::ImmutableString& refreshToken,
                               kelcore::ImmutableString& expiresAt);
  // More than an hour left: a token with an hour or less counts as expired, so a request started
  // now cannot outlive it.
  bool IsAccessTokenValid();
  // "credentials_" + the store's user name.
  std::u16string GetCredentialAccountName();

  // Percent-encodes every byte outside "-_.~", digits and ASCII letters as '%' and upper-case hex
  // without a leading zero (0x0A becomes "%A"): the form the sign-in page expects.
  static std::string UrlEncode(std::string_view text);
  // Percent-encodes `text` as one path segment: every byte outside "-_.~", digits and ASCII
  // letters as '%' and two upper-case hex digits, and "." or ".." in whole, so that no text can
  // add, remove or climb out of a segment of the URL it goes into.
  static std::string EncodePathSegment(std::string_view text);

 protected:
  kelcore::async::Future<kelcore::ImmutableString> GetOstrioAccessToken(bool forceRefresh);
  kelcore::async::Future<void> RefreshJwtAccessToken(const kelcore::U8Str& refreshToken);
  kelcore::async::Future<std::shared_ptr<kelnet::Response>> PostForAuthorization(
      const kelcore::ImmutableString& url, const std::shared_ptr<const kelcore::allocator::RecycledMemory>& body);


 private:
  static kelcore::ImmutableString DecodeJwtPayload(const kelcore::ImmutableString& token);
  // redirectUri (percent-encoded when asked) + "://" + "ostrio".
  kelcore::ImmutableString GetAuthCallbackUrl(bool encode);
  void RegisterUriScheme(const kelcore::ImmutableString& scheme);
  // Posts loginCallback(result) to the pre-termination executor when a callback is set.
  void PostLoginCallback(int result);
  std::u16string ReadStoredRecord();
  // Takes the stored credentials when another process has replaced them since they were read.
  void AdoptStoredCredentials();
  // The refresh proper, with the per-user refresh lock held (or none, when it cannot be had).
  kelcore::async::Future<kelcore::ImmutableString> RefreshHoldingLock(std::shared_ptr<RefreshLock> lock,
                                                                      bool forceRefresh);
  void SetTokens(const CredentialRecord& record);
  kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> Keychain();
  void EndRefresh(std::uint64_t generation);

  std::mutex stateMutex_;
  kelcore::ImmutableString clientId_;
  kelcore::ImmutableString redirectUri_;
  EnvironmentType environmentType_ = kEnvironmentProduction;
  kelcore::ImmutableString previewValue_;
  kelcore::ImmutableString accessToken_;
  kelcore::ImmutableString refreshToken_;
  kelcore::ImmutableString expiresAt_;
  kelcore::ImmutableString userId_;
  std::function<void(int)> loginCallback_;
  kelcore::async::Future<kelcore::ImmutableString> pendingRefresh_;
  // Which refresh is running (0: none). Claimed before the refresh starts, so concurrent callers
  // cannot both start one; compared when clearing, so a refresh that completed before its marker
  // was stored never leaves a stale marker behind.
  std::uint64_t refreshInFlight_ = 0;
  std::uint64_t refreshGeneration_ = 0;
  kelcore::classref::InterfaceRef<kelcore::IKeychainUtils> keychain_;
  kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper> osUtils_;
  Clock clock_;
  PostFunction post_;
};

}  // namespace ostriolib

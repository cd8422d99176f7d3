#pragma once
// The auth manager: the signed-in user's tokens, browser sign-in, token refresh.

#include <functional>

#include "kelcore/ClassRef.h"
#include "kelcore/Future.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/Strings.h"
#include "ostriolib/OstrioConfiguration.h"
#include "ostriolib/OstrioExport.h"

namespace kelcore {
class IKeychainUtils;
class IOSUtilsWrapper;
}  // namespace kelcore

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_AUTH);

namespace ostriolib {

class OSTRIOLIB_EXPORT IOstrioAuthManager : public kelcore::classref::Unknown {
 public:
  ~IOstrioAuthManager() override = default;

  virtual int Initialize(const kelcore::ImmutableString& clientId, const kelcore::ImmutableString& redirectUri,
                         const EnvironmentType& environment, const kelcore::ImmutableString& previewValue) = 0;
  virtual int Login(const std::function<void(int)>& callback) = 0;
  virtual int ProcessRedirectedCallbackUrl(const kelcore::U8Str& url) = 0;
  virtual bool IsUserSignedIn() = 0;
  virtual kelcore::async::Future<kelcore::ImmutableString> RefreshAccessTokenIfNeeded() = 0;
  virtual int Logout() = 0;
  virtual void SetKeychainUtils(const kelcore::classref::InterfaceRef<kelcore::IKeychainUtils>& keychain) = 0;
  virtual void SetOSUtilsWrapper(const kelcore::classref::InterfaceRef<kelcore::IOSUtilsWrapper>& osUtils) = 0;
  virtual kelcore::ImmutableString GetAccessToken() = 0;
  virtual kelcore::ImmutableString GetRefreshToken() = 0;
};

// The process-wide auth manager, alive while anyone holds a reference.
OSTRIOLIB_EXPORT kelcore::classref::InterfaceRef<IOstrioAuthManager> GetOstrioAuthManager();

}  // namespace ostriolib

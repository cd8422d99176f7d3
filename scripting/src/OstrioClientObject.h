#pragma once
// OstrioClientObject: the client as the script class "OstrioClient". A thin layer: each method
// forwards to the client singleton (reached through the bindings' library-wide reference that
// SetupOstrioAuth sets) or to the auth manager.
//
// Threads: script calls come on the scripting engine's thread. A refresh's continuation runs
// wherever the auth manager's future completes and touches the object only through a weak
// reference, so a script may drop the object while its refresh runs.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "kelcore/ClassRef.h"
#include "kelcore/Future.h"
#include "kelcore/ImmutableString.h"
#include "kelscripting/ClassDefinition.h"
#include "kelscripting/NativePromise.h"
#include "kelscripting/ScriptObject.h"
#include "ostriolib/IOstrioAuthManager.h"

namespace ostriolib {

class OstrioClient;

class OstrioClientObject : public kelscripting::ScriptObject {
 public:
  static constexpr std::string_view kClassName = "OstrioClient";

  // The auth manager is GetOstrioAuthManager()'s.
  OstrioClientObject();
  explicit OstrioClientObject(kelcore::classref::InterfaceRef<IOstrioAuthManager> authManager);
  ~OstrioClientObject() override;

  static kelscripting::ClassDefinition Definition();

  // Binds the scripts to the client singleton: keeps it as the bindings' client and replaces the
  // one listener that turns its signed-in-changed message into an OstrioAuthEventObject event.
  static void SetupOstrioAuth();
  // The client the bindings were last set up with (null before SetupOstrioAuth).
  static std::shared_ptr<OstrioClient> BoundClient();

  // "getInstance": a new object in the calling script's context, after SetupOstrioAuth.
  static std::shared_ptr<OstrioClientObject> GetInstance(const kelscripting::ScriptContextRef& context);

  bool SignInOstrioUser();
  bool SignOutOstrioUser();
  bool IsOstrioUserSignedIn();
  // Rejected with false when nobody is signed in; while this object's refresh is pending,
  // resolved at once with the current token; otherwise resolved with the refreshed token, or
  // with "" when the refresh failed.
  std::shared_ptr<kelscripting::NativePromise> RefreshAccessToken();
  std::string GetAccessToken();
  std::string GetRefreshToken();

 private:
  void ClearPendingRefresh();

  const kelcore::classref::InterfaceRef<IOstrioAuthManager> authManager_;
  // Written by script calls and cleared by the refresh's continuation on another thread.
  std::mutex pendingMutex_;
  kelcore::async::Future<kelcore::ImmutableString> pendingRefresh_;
};

}  // namespace ostriolib

#include "OstrioClientObject.h"

#include <utility>

#include "OstrioAuthEventObject.h"
#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelcore/Messaging.h"
#include "kelcore/ResultCodes.h"
#include "kelscripting/ObjectFactory.h"
#include "ostriolib/OstrioClient.h"

namespace ostriolib {

using kelcore::ImmutableString;
using kelscripting::CallContext;
using kelscripting::MethodKind;
using kelscripting::ScriptValue;
using kelscripting::ValueType;

namespace {

constexpr std::string_view kSource = "scripting/src/OstrioClientObject";

// What SetupOstrioAuth keeps for the whole library: the client the methods call, its station and
// the one signed-in listener.
struct Bindings {
  std::mutex mutex;
  std::shared_ptr<OstrioClient> client;
  ImmutableString stationID;
  kelcore::messaging::Listener<OstrioUserSignedInChangedMessage> signedInListener;
};

Bindings& TheBindings() {
  static Bindings bindings;
  return bindings;
}

void OnSignedInChanged(const OstrioUserSignedInChangedMessage& message) {
  const auto client = message.Get<0>().lock();
  if (!client) return;
  // The state as it is now, not as it was when the message was posted.
  OstrioAuthEventObject::QueueEvent(client->IsOstrioUserSignedIn() ? kOstrioAuthEventSignedIn
                                                                   : kOstrioAuthEventSignedOut);
}

// The object a method was called on, as an OstrioClientObject.
std::shared_ptr<OstrioClientObject> Self(const CallContext& call) {
  auto self = std::dynamic_pointer_cast<OstrioClientObject>(call.self);
  KEL_THROW_IF(!self, kelcore::kErrorInvalidArgument, "Not an OstrioClient object");
  return self;
}

template <class Method>
kelscripting::MethodHandler Forward(Method method) {
  return [method](const CallContext& call) -> ScriptValue { return ScriptValue((*Self(call).*method)()); };
}

}  // namespace

OstrioClientObject::OstrioClientObject() : OstrioClientObject(GetOstrioAuthManager()) {}

OstrioClientObject::OstrioClientObject(kelcore::classref::InterfaceRef<IOstrioAuthManager> authManager)
    : kelscripting::ScriptObject(std::string(kClassName)), authManager_(std::move(authManager)) {}

OstrioClientObject::~OstrioClientObject() = default;

kelscripting::ClassDefinition OstrioClientObject::Definition() {
  kelscripting::ClassDefinition definition(std::string(kClassName), "Ostriolib Client");
  // The flag values are kelscripting's vocabulary, passed on as they are.
  definition.AddNamespace("Ostriolib", 0x20000);
  definition.AddMethod({"getInstance", MethodKind::Static, ValueType::Object,
                        "Get an object representing the Ostrio client", 0x80000,
                        [](const CallContext& call) -> ScriptValue {
                          return std::shared_ptr<kelscripting::ScriptObject>(GetInstance(call.context));
                        }});
  definition.AddMethod({"signInOstrioUser", MethodKind::Instance, ValueType::Boolean, "Sign in to Ostrio", 0x100000,
                        Forward(&OstrioClientObject::SignInOstrioUser)});
  definition.AddMethod({"signOutOstrioUser", MethodKind::Instance, ValueType::Boolean, "Sign out of Ostrio", 0x100000,
                        Forward(&OstrioClientObject::SignOutOstrioUser)});
  definition.AddMethod({"isOstrioUserSignedIn", MethodKind::Instance, ValueType::Boolean,
                        "Check if the Ostrio user is signed in", 0x100000,
                        Forward(&OstrioClientObject::IsOstrioUserSignedIn)});
  definition.AddMethod({"refreshAccessToken", MethodKind::Instance, ValueType::Promise, "Refresh the access token",
                        0x80000, Forward(&OstrioClientObject::RefreshAccessToken)});
  definition.AddMethod({"getAccessToken", MethodKind::Instance, ValueType::String,
                        "Get the current access token for scripting.", 0x100000,
                        Forward(&OstrioClientObject::GetAccessToken)});
  definition.AddMethod({"getRefreshToken", MethodKind::Instance, ValueType::String,
                        "Get the current refresh token for scripting.", 0x100000,
                        Forward(&OstrioClientObject::GetRefreshToken)});
  definition.AddObjectFlags(1024);
  return definition;
}

void OstrioClientObject::SetupOstrioAuth() {
  auto client = OstrioClient::GetInstance();
  const ImmutableString stationID = client->GetStationID();
  kelcore::messaging::Listener<OstrioUserSignedInChangedMessage> listener(stationID, &OnSignedInChanged);
  auto& bindings = TheBindings();
  std::shared_ptr<OstrioClient> previousClient;
  kelcore::messaging::Listener<OstrioUserSignedInChangedMessage> previousListener;
  std::lock_guard lock(bindings.mutex);
  previousClient = std::exchange(bindings.client, std::move(client));
  bindings.stationID = stationID;
  previousListener = std::exchange(bindings.signedInListener, std::move(listener));
  // The previous client and listener are released after the lock (declared before the guard).
}

std::shared_ptr<OstrioClient> OstrioClientObject::BoundClient() {
  auto& bindings = TheBindings();
  std::lock_guard lock(bindings.mutex);
  return bindings.client;
}

std::shared_ptr<OstrioClientObject> OstrioClientObject::GetInstance(const kelscripting::ScriptContextRef& context) {
  SetupOstrioAuth();
  return std::dynamic_pointer_cast<OstrioClientObject>(kelscripting::ObjectFactory::Create(context, kClassName));
}

bool OstrioClientObject::SignInOstrioUser() {
  const auto client = BoundClient();
  return client && kelcore::ResultSucceeded(client->SignInOstrioUser());
}

bool OstrioClientObject::SignOutOstrioUser() {
  const auto client = BoundClient();
  return client && kelcore::ResultSucceeded(client->SignOutOstrioUser());
}

bool OstrioClientObject::IsOstrioUserSignedIn() {
  const auto client = BoundClient();
  return client && client->IsOstrioUserSignedIn();
}

std::string OstrioClientObject::GetAccessToken() {
  return authManager_ ? authManager_->GetAccessToken().ToStdString() : std::string();
}

std::string OstrioClientObject::GetRefreshToken() {
  return authManager_ ? authManager_->GetRefreshToken().ToStdString() : std::string();
}

void OstrioClientObject::ClearPendingRefresh() {
  kelcore::async::Future<ImmutableString> finished;
  std::lock_guard lock(pendingMutex_);
  finished = std::exchange(pendingRefresh_, {});
}

std::shared_ptr<kelscripting::NativePromise> OstrioClientObject::RefreshAccessToken() {
  auto promise = kelscripting::NativePromise::Create(Context());
  if (!IsOstrioUserSignedIn() || !authManager_) {
    promise->Reject(ScriptValue(false));
    return promise;
  }

  kelcore::async::Future<ImmutableString> refresh;
  {
    // The test and the store under one hold: two callers cannot both start a refresh. The
    // continuation is attached only after the store, so even a refresh that is already complete
    // clears its own marker and never leaves one behind.
    std::lock_guard lock(pendingMutex_);
    if (!pendingRefresh_.IsValid()) {
      refresh = authManager_->RefreshAccessTokenIfNeeded();
      pendingRefresh_ = refresh;
    }
  }
  if (!refresh.IsValid()) {
    promise->Resolve(ScriptValue(GetAccessToken()));
    return promise;
  }

  static const std::string kContinuation =
      kelcore::ContinuationName("ostriolib::OstrioClientObject::RefreshAccessToken", 1);
  std::weak_ptr<OstrioClientObject> weakThis = WeakFromThisAs<OstrioClientObject>();
  refresh
      .Then(
          [weakThis](kelcore::async::Future<ImmutableString> done) -> ImmutableString {
            const auto strongThis = weakThis.lock();
            KEL_THROW_IF_AT(!strongThis, kelcore::kErrorPreconditionFailed, "OstrioClientObject no longer valid",
                            (kelcore::SourceSite{kSource, __LINE__, kContinuation}));
            strongThis->ClearPendingRefresh();
            // A failed refresh reaches the script as the empty token, not as a rejection.
            if (kelcore::ResultFailed(done.GetResult())) return {};
            return done.Get();
          },
          kelcore::async::GetInlineExecutor())
      .Then(
          [promise](kelcore::async::Future<ImmutableString> yielded) {
            if (auto error = yielded.GetException()) {
              promise->Reject(kelcore::ExtractMessageFromException(error), kelcore::ExtractResultFromException(error));
            } else {
              promise->Resolve(ScriptValue(yielded.Get().ToStdString()));
            }
          },
          kelcore::async::GetInlineExecutor());
  return promise;
}

namespace {
const kelscripting::ClassRegistrar sOstrioClientObjectClass(&OstrioClientObject::Definition,
                                                            [] { return std::make_shared<OstrioClientObject>(); });
}  // namespace

}  // namespace ostriolib

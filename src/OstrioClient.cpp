// The client: sign-in state and its messages, the query pipeline, asset URLs and downloads.

#include "ostriolib/OstrioClient.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kelcore/Executor.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"
#include "kelcore/ResultCodes.h"
#include "kelnet/URL.h"
#include "OstrioServiceProvider.h"
#include "ostriolib/OstrioConfiguration.h"

namespace ostriolib {

using kelcore::ImmutableString;
using kelcore::async::Future;
using kelcore::classref::InterfaceRef;

namespace {

// Failures of the client name its source file as hosts know it.
constexpr std::string_view kClientSource = "src/OstrioClient";

kelcore::SourceSite Continuation(int line, std::string_view function, int index = 1) {
  return kelcore::ContinuationSite(kClientSource, line, function, index);
}

}  // namespace

// ---- instance ----

std::shared_ptr<OstrioClient> OstrioClient::GetInstance() {
  // Thread-safe static initialisation: concurrent first callers wait for the one construction.
  static const std::shared_ptr<OstrioClient> instance(
      new OstrioClient(GetOstrioAuthManager(),
                       kelcore::classref::AllocateClassInstance<OstrioServiceProvider>()));
  return instance;
}

OstrioClient::OstrioClient(InterfaceRef<IOstrioAuthManager> authManager,
                           InterfaceRef<IOstrioServiceProvider> serviceProvider)
    : authManager_(std::move(authManager)),
      serviceProvider_(std::move(serviceProvider)),
      stationID_(kelcore::messaging::UniqueStationID()) {
  kelcore::messaging::RegisterStation(stationID_);
}

OstrioClient::~OstrioClient() {
  TerminateOstrioService();
  kelcore::messaging::DisposeStation(stationID_);
}

kelcore::ImmutableString OstrioClient::GetStationID() const { return stationID_; }

// ---- sign-in state ----

int OstrioClient::SignInOstrioUser() {
  if (!authManager_) return kelcore::kErrorNotSignedIn;
  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  return authManager_->Login([weak](int result) {
    if (result < 0) return;
    if (auto strongThis = weak.lock()) strongThis->PostOstrioUserSignedInChanged();
  });
}

int OstrioClient::SignOutOstrioUser() {
  if (!authManager_ || !authManager_->IsUserSignedIn()) return kelcore::kErrorNotSignedIn;
  TerminateOstrioService();
  const int result = authManager_->Logout();
  PostOstrioUserSignedInChanged();
  return result;
}

bool OstrioClient::IsOstrioUserSignedIn() const { return authManager_ && authManager_->IsUserSignedIn(); }

int OstrioClient::InitializeOstrioService(const ImmutableString& accessToken) {
  if (auto existing = Service()) return existing->SetAccessToken(accessToken);

  KEL_THROW_IF_NULL(serviceProvider_, IOstrioServiceProvider);
  auto service = serviceProvider_->CreateService();
  KEL_THROW_IF_NULL(service, IOstrioServiceProvider);

  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  const std::function<void(const ImmutableString&)> onUnauthenticated = [weak](const ImmutableString&) {
    if (auto strongThis = weak.lock()) strongThis->OnAccessTokenExpired();
  };
  const EnvironmentType environment = GetEnvironmentType();
  const int result = service->Initialize(GetOstrioClientID(), accessToken, environment, GetDevPreviewHeaderValue(),
                                         onUnauthenticated);
  if (result < 0) return result;  // a failed service is dropped; the next preparation makes a new one
  std::lock_guard lock(stateMutex_);
  // Two preparations that raced to create a service keep the first; the second re-tokens it.
  if (service_) return service_->SetAccessToken(accessToken);
  service_ = std::move(service);
  return result;
}

void OstrioClient::TerminateOstrioService() {
  InterfaceRef<IOstrioService> released;
  std::lock_guard lock(stateMutex_);
  released = std::move(service_);
  service_.Reset();
}

InterfaceRef<IOstrioService> OstrioClient::Service() const {
  std::lock_guard lock(stateMutex_);
  return service_;
}

void OstrioClient::OnAccessTokenExpired() {
  // Unlike a query's preparation, this one fails when no token came: the host is told the refresh
  // failed, with the refresh's own code, rather than that it succeeded.
  auto preparation = Prepare(true);
  {
    std::lock_guard lock(stateMutex_);
    pendingTokenExpiry_ = preparation;
  }
  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  preparation.Then(
      [weak](Future<void> done) {
        auto strongThis = weak.lock();
        KEL_THROW_IF_AT(!strongThis, kelcore::kErrorPreconditionFailed, "",
                        Continuation(__LINE__, "ostriolib::OstrioClient::OnAccessTokenExpired"));
        const int result = done.GetResult();
        if (result < 0) {
          strongThis->Broadcast<OstrioTokenRefreshFailedMessage>(result);
        } else {
          strongThis->Broadcast<OstrioAccessTokenRefreshedMessage>();
        }
        std::lock_guard lock(strongThis->stateMutex_);
        strongThis->pendingTokenExpiry_ = {};
      },
      kelcore::async::GetInlineExecutor());
}

void OstrioClient::PostOstrioUserSignedInChanged() { Broadcast<OstrioUserSignedInChangedMessage>(); }

template <class Message, class... Values>
void OstrioClient::Broadcast(Values... values) {
  Message message(WeakFromThisAs<OstrioClient>(), std::move(values)...);
  if (kelcore::async::IsMainThread()) {
    kelcore::messaging::BroadcastMessageOnMainThread(stationID_, message);
    return;
  }
  kelcore::messaging::AsyncBroadcastMessagePtr(stationID_, std::make_unique<Message>(std::move(message)));
}

// ---- the query pipeline ----

Future<void> OstrioClient::PrepareQuery() { return Prepare(false); }

Future<void> OstrioClient::Prepare(bool failWithoutToken) {
  // The pending request is claimed under the lock before the auth manager is asked, so two
  // preparations on two threads cannot both start one; it completes through our own promise,
  // because the auth manager may answer at once, inside the call.
  kelcore::async::Promise<ImmutableString> token;
  {
    std::lock_guard lock(stateMutex_);
    if (pendingTokenRequest_.IsValid()) {
      if (!service_) return kelcore::async::MakeFailedFuture<void>(kelcore::kErrorNotSignedIn);
      return kelcore::async::MakeReadyFuture();
    }
    pendingTokenRequest_ = token.GetFuture();
  }

  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  auto prepared = token.GetFuture().Then(
      [weak, failWithoutToken](Future<ImmutableString> done) {
        auto strongThis = weak.lock();
        KEL_THROW_IF_AT(!strongThis, kelcore::kErrorPreconditionFailed, "",
                        Continuation(__LINE__, "ostriolib::OstrioClient::PrepareQuery"));
        {
          std::lock_guard lock(strongThis->stateMutex_);
          strongThis->pendingTokenRequest_ = {};
        }
        // No token (nobody signed in, a refused refresh): the query goes on with the service as it
        // is, and fails there if there is none.
        if (done.GetResult() < 0) {
          if (failWithoutToken) std::rethrow_exception(done.GetException());
          return;
        }
        const int result = strongThis->InitializeOstrioService(done.Get());
        KEL_THROW_IF_AT(kelcore::ResultFailed(result), kelcore::kErrorOperationFailed,
                        "Could not initialize the OstrioService",
                        Continuation(__LINE__, "ostriolib::OstrioClient::PrepareQuery"));
      },
      kelcore::async::GetInlineExecutor());

  if (!authManager_) {
    token.SetError(kelcore::kErrorNotSignedIn);
  } else {
    try {
      authManager_->RefreshAccessTokenIfNeeded().Then(
          [token](Future<ImmutableString> done) {
            if (auto error = done.GetException()) {
              token.SetException(error);
            } else {
              token.SetValue(done.Get());
            }
          },
          kelcore::async::GetInlineExecutor());
    } catch (...) {
      token.SetException(std::current_exception());
    }
  }
  return prepared;
}

template <class T, class Load>
Future<T> OstrioClient::QueryWithService(const char* operation, Load load) {
  std::weak_ptr<OstrioClient> weak = WeakFromThisAs<OstrioClient>();
  return PrepareQuery().ThenOnSuccess(
      [weak, operation, load = std::move(load)]() -> Future<T> {
        auto strongThis = weak.lock();
        KEL_THROW_IF_AT(!strongThis, kelcore::kErrorPreconditionFailed, "", Continuation(__LINE__, operation));
        // Each query keeps its own reference: a sign-out meanwhile does not disturb it.
        return load(strongThis->Service());
      },
      kelcore::async::GetDefaultExecutor());
}

Future<InterfaceRef<OstrioUser>> OstrioClient::GetCurrentUser() {
  return QueryWithService<InterfaceRef<OstrioUser>>("ostriolib::OstrioClient::GetCurrentUser",
                                                    [](const auto& service) { return OstrioUser::LoadUser(service); });
}

Future<InterfaceRef<OstrioAccountList>> OstrioClient::GetUserAccounts() {
  return QueryWithService<InterfaceRef<OstrioAccountList>>(
      "ostriolib::OstrioClient::GetUserAccounts",
      [](const auto& service) { return OstrioAccountList::LoadAccountList(service); });
}

Future<int> OstrioClient::GetWorkspaceCount(const kelcore::utility::Guid& accountId) {
  return QueryWithService<int>("ostriolib::OstrioClient::GetWorkspaceCount", [accountId](const auto& service) {
    return OstrioWorkspaceList::GetWorkspaceCount(service, accountId);
  });
}

Future<InterfaceRef<OstrioWorkspaceList>> OstrioClient::GetAccountWorkspaces(const kelcore::utility::Guid& accountId,
                                                                             int first, const kelcore::U8Str& after) {
  return QueryWithService<InterfaceRef<OstrioWorkspaceList>>(
      "ostriolib::OstrioClient::GetAccountWorkspaces", [accountId, first, after](const auto& service) {
        return OstrioWorkspaceList::LoadWorkspaceList(service, accountId, first, after);
      });
}

Future<int> OstrioClient::GetProjectCount(const kelcore::utility::Guid& workspaceId) {
  return QueryWithService<int>("ostriolib::OstrioClient::GetProjectCount", [workspaceId](const auto& service) {
    return OstrioProjectList::GetProjectCount(service, workspaceId);
  });
}

Future<InterfaceRef<OstrioProjectList>> OstrioClient::GetWorkspaceProjects(const kelcore::utility::Guid& workspaceId,
                                                                           int first, const kelcore::U8Str& after) {
  return QueryWithService<InterfaceRef<OstrioProjectList>>(
      "ostriolib::OstrioClient::GetWorkspaceProjects", [workspaceId, first, after](const auto& service) {
        return OstrioProjectList::LoadProjectList(service, workspaceId, first, after);
      });
}

Future<AssetCounts> OstrioClient::GetAssetCounts(const kelcore::utility::Guid& folderId) {
  return QueryWithService<AssetCounts>("ostriolib::OstrioClient::GetAssetCounts", [folderId](const auto& service) {
    return OstrioAssets::GetAssetCounts(service, folderId);
  });
}

Future<InterfaceRef<OstrioAssets>> OstrioClient::GetFolderAssets(const kelcore::utility::Guid& folderId,
                                                                 int foldersFirst, const kelcore::U8Str& foldersAfter,
                                                                 int filesFirst, const kelcore::U8Str& filesAfter) {
  return QueryWithService<InterfaceRef<OstrioAssets>>(
      "ostriolib::OstrioClient::GetFolderAssets",
      [folderId, foldersFirst, foldersAfter, filesFirst, filesAfter](const auto& service) {
        return OstrioAssets::LoadAssets(service, folderId, foldersFirst, foldersAfter, filesFirst, filesAfter);
      });
}

Future<InterfaceRef<OstrioDictionaryResource>> OstrioClient::RunQuery(const kelcore::U8Str& query,
                                                                      const kelcore::utility::Dictionary& variables) {
  return QueryWithService<InterfaceRef<OstrioDictionaryResource>>(
      "ostriolib::OstrioClient::RunQuery", [query, variables](const auto& service) {
        return OstrioDictionaryResource::GenericQuery(service, query, variables);
      });
}

}  // namespace ostriolib

#pragma once
// OstrioClient: the one object a host uses. Sign-in state and its messages, the GraphQL queries
// (each returns a future), asset URLs and downloads.
//
// Threads: every public call may come from any thread. Query continuations run on kelcore's
// default executor, never on the caller's stack; a download's chunks are written on kelnet's
// delivery thread. Messages reach listeners of GetStationID() on the main thread (the thread
// that installed kelcore's main-thread dispatcher), so a host must install one.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "kelcore/ClassRef.h"
#include "kelcore/Dictionary.h"
#include "kelcore/File.h"
#include "kelcore/Future.h"
#include "kelcore/Guid.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/Messaging.h"
#include "kelcore/Strings.h"
#include "ostriolib/IOstrioAuthManager.h"
#include "ostriolib/IOstrioService.h"
#include "ostriolib/OstrioAccountList.h"
#include "ostriolib/OstrioAssets.h"
#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioExport.h"
#include "ostriolib/OstrioProjectList.h"
#include "ostriolib/OstrioRecords.h"
#include "ostriolib/OstrioUser.h"
#include "ostriolib/OstrioWorkspaceList.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_CLIENT);

namespace ostriolib {

class OstrioClient;
class IOstrioServiceProvider;
struct OstrioClientTestAccess;

// The messages of the client's station; each carries the client, weakly.
struct MessageNameForOstrioUserSignedInChanged {};
struct MessageNameForOstrioAccessTokenRefreshed {};
struct MessageNameForOstrioTokenRefreshFailed {};
using OstrioUserSignedInChangedMessage =
    kelcore::messaging::MessageBase<MessageNameForOstrioUserSignedInChanged, std::weak_ptr<OstrioClient>>;
using OstrioAccessTokenRefreshedMessage =
    kelcore::messaging::MessageBase<MessageNameForOstrioAccessTokenRefreshed, std::weak_ptr<OstrioClient>>;
// The second value is the failed refresh's result code.
using OstrioTokenRefreshFailedMessage =
    kelcore::messaging::MessageBase<MessageNameForOstrioTokenRefreshFailed, std::weak_ptr<OstrioClient>, int>;

// Which media of an asset: any value other than Thumbnail means the original.
enum RenditionType : int {
  Original = 0,
  Thumbnail = 1,
};

// How far a download is: bytes written to the file, and the resource's size when the server
// said (0 when unknown). Reported on kelnet's delivery thread, at most once per written chunk.
struct DownloadProgress {
  std::uint64_t bytesWritten = 0;
  std::uint64_t totalBytes = 0;
};
using DownloadProgressCallback = std::function<void(const DownloadProgress&)>;

class OSTRIOLIB_EXPORT OstrioClient : public virtual kelcore::classref::SharedAsVirtualBase {
 public:
  // The process-wide client, made on first use (concurrent first callers get the same one).
  static std::shared_ptr<OstrioClient> GetInstance();
  ~OstrioClient() override;
  OstrioClient(const OstrioClient&) = delete;
  OstrioClient& operator=(const OstrioClient&) = delete;

  // Starts the browser sign-in; the auth manager's immediate result.
  int SignInOstrioUser();
  // kErrorNotSignedIn (and nothing else happens) when nobody is signed in.
  int SignOutOstrioUser();
  bool IsOstrioUserSignedIn() const;
  kelcore::ImmutableString GetStationID() const;

  // Makes sure a service exists and holds a current access token.
  kelcore::async::Future<void> PrepareQuery();

  kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioUser>> GetCurrentUser();
  kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioAccountList>> GetUserAccounts();
  kelcore::async::Future<int> GetWorkspaceCount(const kelcore::utility::Guid& accountId);
  kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioWorkspaceList>> GetAccountWorkspaces(
      const kelcore::utility::Guid& accountId, int first, const kelcore::U8Str& after);
  kelcore::async::Future<int> GetProjectCount(const kelcore::utility::Guid& workspaceId);
  kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioProjectList>> GetWorkspaceProjects(
      const kelcore::utility::Guid& workspaceId, int first, const kelcore::U8Str& after);
  kelcore::async::Future<AssetCounts> GetAssetCounts(const kelcore::utility::Guid& folderId);
  kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioAssets>> GetFolderAssets(
      const kelcore::utility::Guid& folderId, int foldersFirst, const kelcore::U8Str& foldersAfter, int filesFirst,
      const kelcore::U8Str& filesAfter);
  kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioDictionaryResource>> RunQuery(
      const kelcore::U8Str& query, const kelcore::utility::Dictionary& variables);

  // The media URL of an asset (empty when the answer names none).
  kelcore::async::Future<kelcore::ImmutableString> GetAssetURL(const kelcore::utility::Guid& assetId,
                                                              const RenditionType& rendition);
  // Streams the asset's media into target (truncated first). A partial download leaves the file
  // as far as it was written. onProgress, when given, follows the bytes written.
  kelcore::async::Future<void> DownloadVideoAsset(const kelcore::utility::Guid& assetId, RenditionType rendition,
                                                  const kelcore::filesupport::File& target,
                                                  DownloadProgressCallback onProgress = {});
  kelcore::async::Future<void> DownloadFileFromURL(const kelcore::ImmutableString& url,
                                                   const kelcore::filesupport::File& target,
                                                   DownloadProgressCallback onProgress = {});

 private:
  friend struct OstrioClientTestAccess;

  struct DownloadStrategy {
    kelcore::U8Str query;
    std::function<kelcore::ImmutableString(const kelcore::classref::InterfaceRef<OstrioDictionaryResource>&)>
        extractUrl;
  };

  OstrioClient(kelcore::classref::InterfaceRef<IOstrioAuthManager> authManager,
               kelcore::classref::InterfaceRef<IOstrioServiceProvider> serviceProvider);

  // PrepareQuery; with failWithoutToken, a failed token request fails the preparation too.
  kelcore::async::Future<void> Prepare(bool failWithoutToken);
  int InitializeOstrioService(const kelcore::ImmutableString& accessToken);
  void TerminateOstrioService();
  void OnAccessTokenExpired();
  void PostOstrioUserSignedInChanged();
  template <class Message, class... Values>
  void Broadcast(Values... values);
  kelcore::classref::InterfaceRef<IOstrioService> Service() const;
  // Runs load(service) on the default executor once the preparation succeeded.
  template <class T, class Load>
  kelcore::async::Future<T> QueryWithService(const char* operation, Load load);

  DownloadStrategy GetDownloadStrategy(RenditionType rendition);
  static kelcore::ImmutableString ExtractUrlFromDictionary(
      const kelcore::classref::InterfaceRef<OstrioDictionaryResource>& resource,
      const std::vector<kelcore::ImmutableString>& path, const kelcore::ImmutableString& finalKey);

  const kelcore::classref::InterfaceRef<IOstrioAuthManager> authManager_;
  const kelcore::classref::InterfaceRef<IOstrioServiceProvider> serviceProvider_;
  const kelcore::ImmutableString stationID_;
  // The members below are written by public calls and by continuations on other threads. The
  // lock is never held across a call into the auth manager or the service.
  mutable std::mutex stateMutex_;
  kelcore::classref::InterfaceRef<IOstrioService> service_;
  kelcore::async::Future<void> pendingTokenExpiry_;
  kelcore::async::Future<kelcore::ImmutableString> pendingTokenRequest_;
};

}  // namespace ostriolib

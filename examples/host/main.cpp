// A host of ostriolib in one file: it hands the library its parameters, runs a main loop for
// the library's messages, signs the user in through the browser, prints who that is and the
// names of their accounts, and downloads one thumbnail with progress.
//
//   ostrio-example-host THUMBNAIL_PATH
//
// The service, CA and browser come from the library's own settings (OSTRIOLIB_ENVIRONMENT,
// OSTRIOLIB_DOMAIN_DEVELOPMENT, OSTRIOLIB_CABUNDLE, OSTRIOLIB_BROWSER, ...). The browser sends
// the user back to "ostrio-example://..."; a real host receives that URL from its registered
// scheme. This one reads it from standard input when the browser command cannot hand it over.

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

#include "kelcore/Executor.h"
#include "kelcore/Messaging.h"
#include "ostriolib/OstrioClient.h"
#include "ostriolib/OstrioConfiguration.h"

namespace {

template <class T>
bool Wait(const kelcore::async::Future<T>& future) {
  if (!future.WaitFor(std::chrono::minutes(2))) return false;
  if (auto error = future.GetException()) {
    std::fprintf(stderr, "ostrio-example-host: %s (0x%08X)\n", kelcore::ExtractMessageFromException(error).c_str(),
                 static_cast<unsigned>(future.GetResult()));
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ostrio-example-host THUMBNAIL_PATH\n");
    return 2;
  }
  const OstrioHostParameter parameters[] = {{"ostriolib.OstrioClientName", "ExampleHost"},
                                            {"ostriolib.OstrioRedirectURI", "ostrio-example"}};
  if (OstrioLibBeginProcess("Example Co", "1.0", "1", parameters, 2) < 0) return 1;

  // The library's messages arrive on the thread that installed the dispatcher: this one.
  auto loop = std::make_shared<kelcore::async::MainThreadRunLoop>();
  kelcore::async::InstallMainThreadDispatcher(loop);
  auto client = ostriolib::OstrioClient::GetInstance();

  if (!client->IsOstrioUserSignedIn()) {
    bool signedIn = false;
    kelcore::messaging::Listener<ostriolib::OstrioUserSignedInChangedMessage> listener(
        client->GetStationID(), [&](const auto&) { signedIn = client->IsOstrioUserSignedIn(); });
    if (client->SignInOstrioUser() < 0) return 1;
    std::string callback;
    std::cerr << "Sign in in the browser, then paste the ostrio-example:// address here: " << std::flush;
    if (!std::getline(std::cin, callback)) return 1;
    ostriolib::GetOstrioAuthManager()->ProcessRedirectedCallbackUrl(kelcore::ToU8Str(callback));
    if (!loop->RunUntil([&] { return signedIn; }, std::chrono::minutes(2))) return 1;
  }

  auto user = client->GetCurrentUser();
  if (!Wait(user)) return 1;
  std::printf("Signed in as %s\n", kelcore::ToStdString(user.Get()->GetUser().name).c_str());

  auto accounts = client->GetUserAccounts();
  if (!Wait(accounts)) return 1;
  for (const auto& account : accounts.Get()->GetAccountList()) {
    std::printf("Account: %s\n", kelcore::ToStdString(account.name).c_str());
  }

  // The first project's root folder holds videos; its first file's thumbnail is the download.
  const auto first = accounts.Get()->GetAccountList().at(0);
  auto workspaces = client->GetAccountWorkspaces(first.id, 1, {});
  if (!Wait(workspaces) || workspaces.Get()->GetWorkspaceList().workspaces.empty()) return 1;
  auto projects = client->GetWorkspaceProjects(workspaces.Get()->GetWorkspaceList().workspaces[0].id, 1, {});
  if (!Wait(projects) || projects.Get()->GetProjectList().projects.empty()) return 1;
  auto assets = client->GetFolderAssets(projects.Get()->GetProjectList().projects[0].rootAssetId, 0, {}, 1, {});
  if (!Wait(assets) || assets.Get()->GetFolderAssets().files.empty()) return 1;

  auto download = client->DownloadVideoAsset(
      assets.Get()->GetFolderAssets().files[0], ostriolib::Thumbnail, kelcore::filesupport::File(argv[1]),
      [](const ostriolib::DownloadProgress& progress) {
        std::fprintf(stderr, "\rdownloaded %llu of %llu bytes", static_cast<unsigned long long>(progress.bytesWritten),
                     static_cast<unsigned long long>(progress.totalBytes));
      });
  if (!Wait(download)) return 1;
  std::fprintf(stderr, "\n");
  std::printf("Thumbnail saved to %s\n", argv[1]);
  kelcore::async::UninstallMainThreadDispatcher();
  return 0;
}

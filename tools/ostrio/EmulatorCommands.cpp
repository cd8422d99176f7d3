#include "EmulatorCommands.h"

#include <stdlib.h>
#include <unistd.h>

#include <system_error>

#include "BrowseCommands.h"
#include "CliError.h"
#include "EmulatorLauncher.h"
#include "FolderPages.h"
#include "MediaCommands.h"
#include "Sha256.h"
#include "SessionCommands.h"

namespace ostrio {
namespace {

// Removes the demo's folder (emulator state, credentials, downloads) however the demo ends.
class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrio-demo-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw CliError(kelcore::kErrorFailed, "cannot make a temporary folder", kExitFailure);
    path_ = pattern;
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

void Heading(const std::string& text) { CommandContext::PrintLine("\n== " + text); }

std::string SelfPath() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string("ostrio") : self.string();
}

void Set(const char* name, const std::string& value) { ::setenv(name, value.c_str(), 1); }

}  // namespace

void EmulatorCommands::Emulator(const std::vector<std::string>& arguments) {
  const std::string reason = EmulatorLauncher::ExecForeground(arguments);
  throw CliError(kelcore::kErrorFailed, reason, kExitFailure);
}

void EmulatorCommands::Demo(CommandContext& context) {
  TempFolder temp;
  Heading("Starting the emulator");
  auto emulator = EmulatorLauncher::Start(temp.Path() / "emulator");
  CommandContext::PrintLine("emulator on 127.0.0.1:" + std::to_string(emulator->Port()) + ", domain suffix " +
                            emulator->Suffix());

  // Everything the library needs to find this emulator, read by the library itself; the state
  // folder, credentials and the scheme registration stay inside the demo's own folder.
  Set("OSTRIOLIB_ENVIRONMENT", "2");
  Set("OSTRIOLIB_DOMAIN_DEVELOPMENT", emulator->Suffix());
  Set("OSTRIOLIB_CABUNDLE", emulator->CaPath());
  Set("OSTRIOLIB_STATEDIR", (temp.Path() / "state").string());
  Set("OSTRIOLIB_KEYCHAIN", "file");
  Set("XDG_DATA_HOME", (temp.Path() / "data").string());
  Set("XDG_CONFIG_HOME", (temp.Path() / "config").string());
  Set("OSTRIO_BIN", SelfPath());
  const auto approve = EmulatorLauncher::SourceFile("tools/ostrio/approve-signin");
  if (approve.empty()) {
    throw CliError(kelcore::kErrorFailed, "cannot find tools/ostrio/approve-signin; set OSTRIO_SOURCE_DIR", kExitFailure);
  }
  Set("OSTRIOLIB_BROWSER", "'" + approve.string() + "' %u");

  Heading("Signing in through the browser redirect (the emulator's page approves by itself)");
  SessionCommands::Login(context, false, 60);

  Heading("Accounts, workspaces, projects");
  auto client = context.Client();
  const PageRequest all{100, {}, true};
  ostriolib::Project first;
  bool haveProject = false;
  for (const auto& account : context.Await(client->GetUserAccounts())->GetAccountList()) {
    CommandContext::PrintLine("account " + kelcore::ToStdString(account.name) + "  " + account.id.ToString());
    kelcore::U8Str after;
    do {
      const auto page = context.Await(client->GetAccountWorkspaces(account.id, all.first, after))->GetWorkspaceList();
      for (const auto& workspace : page.workspaces) {
        CommandContext::PrintLine("  workspace " + kelcore::ToStdString(workspace.name) + "  " +
                                  workspace.id.ToString());
        const auto projects =
            context.Await(client->GetWorkspaceProjects(workspace.id, all.first, {}))->GetProjectList();
        for (const auto& project : projects.projects) {
          CommandContext::PrintLine("    project " + kelcore::ToStdString(project.name) + "  " +
                                    project.id.ToString());
          if (!haveProject) {
            first = project;
            haveProject = true;
          }
        }
      }
      after = page.nextCursor;
    } while (!after.empty());
  }
  if (!haveProject) throw CliError(kelcore::kErrorFailed, "the emulator's seed has no project", kExitFailure);

  Heading("The tree of project " + kelcore::ToStdString(first.name));
  BrowseCommands::Tree(context, first.id);

  Heading("Downloads");
  const auto root = context.Await(FolderPages::FetchAll(client, first.rootAssetId, 100, {}, 100, {}));
  if (root.files.empty()) throw CliError(kelcore::kErrorFailed, "the project's root folder has no file", kExitFailure);
  const auto asset = root.files.front();
  for (const bool thumbnail : {false, true}) {
    const auto url = context.Await(client->GetAssetURL(
        asset, thumbnail ? ostriolib::RenditionType::Thumbnail : ostriolib::RenditionType::Original));
    const auto target = temp.Path() / (thumbnail ? "thumbnail.jpg" : "original.mp4");
    const auto size = MediaCommands::Fetch(context, url.ToStdString(), target, false);
    CommandContext::PrintLine(std::string(thumbnail ? "thumbnail " : "original  ") + asset.ToString() + "  " +
                              std::to_string(size) + " bytes  sha256 " + Sha256::OfFile(target));
  }

  Heading("Stopping the emulator");
  emulator->Stop();
  CommandContext::PrintLine("done");
}

}  // namespace ostrio

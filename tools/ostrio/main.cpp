// ostrio: the command-line host of ostriolib. Parses the command line, checks every argument
// before anything is sent, runs one command and turns its failure into one line on stderr and an
// exit status.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ArgumentChecks.h"
#include "BrowseCommands.h"
#include "CallbackChannel.h"
#include "CliError.h"
#include "CliHost.h"
#include "CommandContext.h"
#include "EmulatorCommands.h"
#include "MediaCommands.h"
#include "SessionCommands.h"

namespace {

using namespace ostrio;

constexpr const char* kFooter =
    "--json goes before the command and prints one JSON document on stdout.\n"
    "Exit status: 0 success, 1 failure, 2 usage, 3 not signed in, 4 network or server.\n"
    "Configuration comes from the environment (OSTRIOLIB_ENVIRONMENT, OSTRIOLIB_DOMAIN_DEVELOPMENT,\n"
    "OSTRIOLIB_CABUNDLE, OSTRIOLIB_STATEDIR, OSTRIOLIB_KEYCHAIN, OSTRIOLIB_BROWSER, ...); see README.md.";

// Page options of one list, checked once parsing is done.
struct PageOptions {
  int first = 100;
  std::string after;
  bool all = false;
  PageRequest Checked(const std::string& firstOption, const std::string& afterOption) const {
    return PageRequest{ArgumentChecks::PageSize(firstOption, first), ArgumentChecks::Cursor(afterOption, after), all};
  }
};

void AddPageOptions(CLI::App* command, PageOptions& page) {
  command->add_option("--first", page.first, "page size (at least 1)")->capture_default_str();
  command->add_option("--after", page.after, "cursor of the page to start after");
  command->add_flag("--all", page.all, "walk every page and print them merged");
}

int Fail(const CliError& error) {
  std::fprintf(stderr, "%s\n", error.Line().c_str());
  return error.Status();
}

}  // namespace

int main(int argc, char** argv) {
  // The registered URL scheme starts "ostrio <redirect URL>": the same as `ostrio callback URL`.
  std::vector<std::string> arguments(argv, argv + argc);
  if (argc == 2 && CallbackChannel::HasScheme(arguments[1], CliHost::kRedirectScheme)) {
    arguments = {arguments[0], "callback", arguments[1]};
  }

  CLI::App app{"ostrio: sign in to Ostrio, browse accounts, workspaces, projects and folders, download media."};
  app.name("ostrio");
  app.footer(kFooter);
  app.require_subcommand(1);
  bool json = false;
  app.add_flag("--json", json, "print one JSON document (give it before the command)");

  // What to run once parsing and the argument checks are done.
  std::function<void(CommandContext&)> run;

  bool noBrowser = false;
  int timeout = 300;
  auto* login = app.add_subcommand("login", "sign in through the browser and wait for the redirect");
  login->add_flag("--no-browser", noBrowser, "print the sign-in address instead of opening a browser");
  login->add_option("--timeout", timeout, "seconds to wait for the sign-in")->capture_default_str();
  login->callback([&] {
    if (timeout < 1) throw CliError::Usage("--timeout must be at least 1, not " + std::to_string(timeout));
    run = [&](CommandContext& c) { SessionCommands::Login(c, noBrowser, timeout); };
  });

  std::string callbackUrl;
  auto* callback = app.add_subcommand("callback", "hand a sign-in redirect to the waiting `ostrio login`");
  callback->add_option("URL", callbackUrl, "the redirect URL (ostrio-cli://ostrio#...)")->required();
  callback->callback([&] { run = [&](CommandContext& c) { SessionCommands::Callback(c, callbackUrl); }; });

  app.add_subcommand("logout", "sign out and forget the stored tokens")->callback([&] {
    run = [](CommandContext& c) { SessionCommands::Logout(c); };
  });
  app.add_subcommand("status", "whether a user is signed in, and how long the access token is valid")
      ->callback([&] { run = [](CommandContext& c) { SessionCommands::Status(c); }; });
  bool refresh = false;
  auto* token = app.add_subcommand("token", "print the access token (a secret: only when asked by name)");
  token->add_flag("--refresh", refresh, "refresh it first when it is close to expiry");
  token->callback([&] { run = [&](CommandContext& c) { SessionCommands::Token(c, refresh); }; });

  app.add_subcommand("whoami", "the signed-in user")->callback([&] {
    run = [](CommandContext& c) { BrowseCommands::WhoAmI(c); };
  });
  app.add_subcommand("accounts", "the user's accounts")->callback([&] {
    run = [](CommandContext& c) { BrowseCommands::Accounts(c); };
  });

  std::string accountText;
  PageOptions workspacePage;
  auto* workspaces = app.add_subcommand("workspaces", "an account's workspaces");
  workspaces->add_option("ACCOUNT", accountText, "account id")->required();
  AddPageOptions(workspaces, workspacePage);
  workspaces->callback([&] {
    const auto account = ArgumentChecks::Id("ACCOUNT", accountText);
    const auto page = workspacePage.Checked("--first", "--after");
    run = [account, page](CommandContext& c) { BrowseCommands::Workspaces(c, account, page); };
  });

  std::string workspaceText;
  PageOptions projectPage;
  auto* projects = app.add_subcommand("projects", "a workspace's projects");
  projects->add_option("WORKSPACE", workspaceText, "workspace id")->required();
  AddPageOptions(projects, projectPage);
  projects->callback([&] {
    const auto workspace = ArgumentChecks::Id("WORKSPACE", workspaceText);
    const auto page = projectPage.Checked("--first", "--after");
    run = [workspace, page](CommandContext& c) { BrowseCommands::Projects(c, workspace, page); };
  });

  std::string folderText;
  PageOptions folderPage;
  PageOptions filePage;
  bool lsAll = false;
  auto* ls = app.add_subcommand("ls", "a folder's sub-folders and files (each kind pages on its own)");
  ls->add_option("FOLDER", folderText, "folder id (a project's rootAssetId for its top)")->required();
  ls->add_option("--folders-first", folderPage.first, "page size of the sub-folders")->capture_default_str();
  ls->add_option("--folders-after", folderPage.after, "cursor of the sub-folder page to start after");
  ls->add_option("--files-first", filePage.first, "page size of the files")->capture_default_str();
  ls->add_option("--files-after", filePage.after, "cursor of the file page to start after");
  ls->add_flag("--all", lsAll, "walk every page of both kinds and print them merged");
  ls->callback([&] {
    const auto folder = ArgumentChecks::Id("FOLDER", folderText);
    auto folders = folderPage.Checked("--folders-first", "--folders-after");
    auto files = filePage.Checked("--files-first", "--files-after");
    folders.all = files.all = lsAll;
    run = [folder, folders, files](CommandContext& c) { BrowseCommands::List(c, folder, folders, files); };
  });

  std::string countText;
  auto* count = app.add_subcommand("count", "how many workspaces, projects or folder children there are");
  count->require_subcommand(1);
  const std::pair<const char*, BrowseCommands::CountKind> countKinds[] = {
      {"workspaces", BrowseCommands::CountKind::Workspaces},
      {"projects", BrowseCommands::CountKind::Projects},
      {"assets", BrowseCommands::CountKind::Assets}};
  const char* countArguments[] = {"ACCOUNT", "WORKSPACE", "FOLDER"};
  for (std::size_t i = 0; i < 3; ++i) {
    auto* kind = count->add_subcommand(countKinds[i].first, std::string("count ") + countKinds[i].first + " of " +
                                                                countArguments[i]);
    kind->add_option(countArguments[i], countText, "id")->required();
    kind->callback([&, i] {
      const auto id = ArgumentChecks::Id(countArguments[i], countText);
      const auto which = countKinds[i].second;
      run = [id, which](CommandContext& c) { BrowseCommands::Count(c, which, id); };
    });
  }

  std::string treeText;
  auto* tree = app.add_subcommand("tree", "the whole tree under a project or folder");
  tree->add_option("ID", treeText, "project or folder id")->required();
  tree->callback([&] {
    const auto id = ArgumentChecks::Id("ID", treeText);
    run = [id](CommandContext& c) { BrowseCommands::Tree(c, id); };
  });

  std::string assetText;
  bool urlThumbnail = false;
  auto* url = app.add_subcommand("url", "the media URL of an asset");
  url->add_option("ASSET", assetText, "asset id")->required();
  url->add_flag("--thumbnail", urlThumbnail, "the thumbnail image instead of the original");
  url->callback([&] {
    const auto asset = ArgumentChecks::Id("ASSET", assetText);
    run = [asset, &urlThumbnail](CommandContext& c) { MediaCommands::Url(c, asset, urlThumbnail); };
  });

  std::string downloadAsset;
  std::string downloadOut;
  bool downloadThumbnail = false;
  bool downloadContinue = false;
  auto* download = app.add_subcommand("download", "download an asset's media to a file");
  download->add_option("ASSET", downloadAsset, "asset id")->required();
  download->add_option("-o,--output", downloadOut, "file to write")->required();
  download->add_flag("--thumbnail", downloadThumbnail, "the thumbnail image instead of the original");
  download->add_flag("--continue", downloadContinue, "continue a partial file when the server allows it");
  download->callback([&] {
    const auto asset = ArgumentChecks::Id("ASSET", downloadAsset);
    const auto target = ArgumentChecks::WritableFile(downloadOut);
    run = [asset, target, &downloadThumbnail, &downloadContinue](CommandContext& c) {
      MediaCommands::Download(c, asset, downloadThumbnail, target, downloadContinue);
    };
  });

  std::string getUrl;
  std::string getOut;
  bool getContinue = false;
  auto* get = app.add_subcommand("get", "download a URL (a media URL from `url`) to a file");
  get->add_option("URL", getUrl, "http(s) URL")->required();
  get->add_option("-o,--output", getOut, "file to write")->required();
  get->add_flag("--continue", getContinue, "continue a partial file when the server allows it");
  get->callback([&] {
    const auto checkedUrl = ArgumentChecks::HttpUrl(getUrl);
    const auto target = ArgumentChecks::WritableFile(getOut);
    run = [checkedUrl, target, &getContinue](CommandContext& c) {
      MediaCommands::Get(c, checkedUrl, target, getContinue);
    };
  });

  std::string document;
  std::string variables;
  auto* query = app.add_subcommand("query", "run a GraphQL document and print the answer");
  query->add_option("DOCUMENT", document, "the GraphQL document")->required();
  query->add_option("--variables", variables, "a JSON object (default: no variables)");
  query->callback([&] {
    MediaCommands::ParseVariables(variables);
    run = [&](CommandContext& c) { MediaCommands::Query(c, document, variables); };
  });

  auto* emulator = app.add_subcommand("emulator", "run the local Ostrio service in the foreground (flags: see "
                                                  "emulator/README.md)");
  emulator->prefix_command();
  emulator->callback([&] {
    const auto passed = emulator->remaining();
    EmulatorCommands::Emulator(passed);
  });
  app.add_subcommand("demo", "sign in to a fresh emulator without a person, browse it, download two files")
      ->callback([&] { run = [](CommandContext& c) { EmulatorCommands::Demo(c); }; });

  std::vector<const char*> parsed;
  for (const auto& argument : arguments) parsed.push_back(argument.c_str());
  try {
    app.parse(static_cast<int>(parsed.size()), const_cast<char**>(parsed.data()));
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return Fail(CliError::Usage(std::string(e.what()) + " (see `ostrio --help`)"));
  } catch (const CliError& e) {
    return Fail(e);
  }

  try {
    CliHost host;
    CommandContext context(host, json);
    run(context);
    return kExitOK;
  } catch (const CliError& e) {
    return Fail(e);
  } catch (...) {
    return Fail(CliError::FromException(std::current_exception()));
  }
}

#include "BrowseCommands.h"

#include <deque>
#include <map>
#include <set>

#include "CliError.h"
#include "FolderPages.h"
#include "RecordJson.h"

namespace ostrio {

using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;
using kelcore::utility::Guid;

namespace {

std::string Text(const kelcore::U8Str& text) { return kelcore::ToStdString(text); }

// Walks pages of one list until its cursor runs out; load(after) returns one page.
template <class List, class Load, class Items>
List AllPages(const PageRequest& page, Load load, Items items) {
  List merged;
  kelcore::U8Str after = kelcore::ToU8Str(page.after);
  for (;;) {
    List next = load(after);
    auto& into = items(merged);
    const auto& from = items(next);
    into.insert(into.end(), from.begin(), from.end());
    if (next.nextCursor.empty()) break;
    if (next.nextCursor == after) {
      throw CliError(kelcore::kErrorFailed, "the service returned the same page cursor twice", kExitNetwork);
    }
    after = next.nextCursor;
  }
  return merged;
}

ostriolib::WorkspaceList LoadWorkspaces(CommandContext& context, const Guid& account, const PageRequest& page) {
  auto client = context.Client();
  auto load = [&](const kelcore::U8Str& after) {
    return context.Await(client->GetAccountWorkspaces(account, page.first, after))->GetWorkspaceList();
  };
  if (!page.all) return load(kelcore::ToU8Str(page.after));
  return AllPages<ostriolib::WorkspaceList>(page, load, [](auto& list) -> auto& { return list.workspaces; });
}

ostriolib::ProjectList LoadProjects(CommandContext& context, const Guid& workspace, const PageRequest& page) {
  auto client = context.Client();
  auto load = [&](const kelcore::U8Str& after) {
    return context.Await(client->GetWorkspaceProjects(workspace, page.first, after))->GetProjectList();
  };
  if (!page.all) return load(kelcore::ToU8Str(page.after));
  return AllPages<ostriolib::ProjectList>(page, load, [](auto& list) -> auto& { return list.projects; });
}

void PrintMore(const kelcore::U8Str& cursor) {
  if (!cursor.empty()) CommandContext::PrintLine("(more: --after " + Text(cursor) + ")");
}

// A project's root folder, found by walking every project the user can see.
bool FindProjectRoot(CommandContext& context, const Guid& project, Guid& root) {
  const PageRequest all{1000, {}, true};
  for (const auto& account : context.Await(context.Client()->GetUserAccounts())->GetAccountList()) {
    for (const auto& workspace : LoadWorkspaces(context, account.id, all).workspaces) {
      for (const auto& candidate : LoadProjects(context, workspace.id, all).projects) {
        if (candidate.id == project) {
          root = candidate.rootAssetId;
          return true;
        }
      }
    }
  }
  return false;
}

struct Listing {
  std::vector<Guid> folders;
  std::vector<Guid> files;
};

DictionaryValue TreeJson(const Guid& id, const std::map<Guid, Listing>& listings) {
  Dictionary node{{"id", id.ToString()}};
  const auto found = listings.find(id);
  std::vector<DictionaryValue> folders;
  if (found != listings.end()) {
    for (const auto& child : found->second.folders) folders.push_back(TreeJson(child, listings));
  }
  node.Set("folders", DictionaryValue(std::move(folders)));
  node.Set("files", RecordJson::Ids(found != listings.end() ? found->second.files : std::vector<Guid>{}));
  return node;
}

void PrintTree(const Guid& id, const std::map<Guid, Listing>& listings, int depth) {
  const auto found = listings.find(id);
  if (found == listings.end()) return;
  const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  for (const auto& child : found->second.folders) {
    CommandContext::PrintLine(indent + "folder " + child.ToString());
    PrintTree(child, listings, depth + 1);
  }
  for (const auto& file : found->second.files) CommandContext::PrintLine(indent + "file   " + file.ToString());
}

}  // namespace

void BrowseCommands::WhoAmI(CommandContext& context) {
  context.RequireSignedIn();
  const auto user = context.Await(context.Client()->GetCurrentUser())->GetUser();
  if (context.Json()) {
    CommandContext::PrintJson(RecordJson::User(user));
    return;
  }
  CommandContext::PrintLine(Text(user.name) + " <" + Text(user.email) + ">");
  CommandContext::PrintLine("id " + user.id.ToString());
}

void BrowseCommands::Accounts(CommandContext& context) {
  context.RequireSignedIn();
  const auto accounts = context.Await(context.Client()->GetUserAccounts())->GetAccountList();
  if (context.Json()) {
    std::vector<DictionaryValue> items;
    for (const auto& account : accounts) items.emplace_back(RecordJson::Account(account));
    CommandContext::PrintJson(DictionaryValue(std::move(items)));
    return;
  }
  for (const auto& account : accounts) {
    CommandContext::PrintLine(account.id.ToString() + "  " + Text(account.name) + "  (version " +
                              std::to_string(account.version) + ")");
  }
}

void BrowseCommands::Workspaces(CommandContext& context, const Guid& account, const PageRequest& page) {
  context.RequireSignedIn();
  const auto list = LoadWorkspaces(context, account, page);
  if (context.Json()) {
    CommandContext::PrintJson(RecordJson::Workspaces(list));
    return;
  }
  for (const auto& workspace : list.workspaces) {
    CommandContext::PrintLine(workspace.id.ToString() + "  " + Text(workspace.name));
  }
  PrintMore(list.nextCursor);
}

void BrowseCommands::Projects(CommandContext& context, const Guid& workspace, const PageRequest& page) {
  context.RequireSignedIn();
  const auto list = LoadProjects(context, workspace, page);
  if (context.Json()) {
    CommandContext::PrintJson(RecordJson::Projects(list));
    return;
  }
  for (const auto& project : list.projects) {
    CommandContext::PrintLine(project.id.ToString() + "  " + Text(project.name) + "  (root folder " +
                              project.rootAssetId.ToString() + ")");
  }
  PrintMore(list.nextCursor);
}

void BrowseCommands::List(CommandContext& context, const Guid& folder, const PageRequest& folders,
                          const PageRequest& files) {
  context.RequireSignedIn();
  auto client = context.Client();
  const ostriolib::Assets assets =
      folders.all || files.all
          ? context.Await(
                FolderPages::FetchAll(client, folder, folders.first, folders.after, files.first, files.after))
          : context
                .Await(client->GetFolderAssets(folder, folders.first, kelcore::ToU8Str(folders.after), files.first,
                                               kelcore::ToU8Str(files.after)))
                ->GetFolderAssets();
  if (context.Json()) {
    CommandContext::PrintJson(RecordJson::Assets(assets));
    return;
  }
  for (const auto& id : assets.folders) CommandContext::PrintLine("folder " + id.ToString());
  for (const auto& id : assets.files) CommandContext::PrintLine("file   " + id.ToString());
  if (!assets.foldersCursor.empty()) {
    CommandContext::PrintLine("(more folders: --folders-after " + Text(assets.foldersCursor) + ")");
  }
  if (!assets.filesCursor.empty()) {
    CommandContext::PrintLine("(more files: --files-after " + Text(assets.filesCursor) + ")");
  }
}

void BrowseCommands::Count(CommandContext& context, CountKind kind, const Guid& id) {
  context.RequireSignedIn();
  auto client = context.Client();
  if (kind == CountKind::Assets) {
    const auto counts = context.Await(client->GetAssetCounts(id));
    if (context.Json()) {
      CommandContext::PrintJson(RecordJson::Counts(counts));
    } else {
      CommandContext::PrintLine(std::to_string(counts.folderCount) + " folders, " + std::to_string(counts.fileCount) +
                                " files");
    }
    return;
  }
  const int count = context.Await(kind == CountKind::Workspaces ? client->GetWorkspaceCount(id)
                                                                : client->GetProjectCount(id));
  if (context.Json()) {
    CommandContext::PrintJson(Dictionary{{"count", count}});
  } else {
    CommandContext::PrintLine(std::to_string(count));
  }
}

void BrowseCommands::Tree(CommandContext& context, const Guid& projectOrFolder) {
  context.RequireSignedIn();
  auto client = context.Client();
  Guid root = projectOrFolder;
  try {
    context.Await(client->GetAssetCounts(projectOrFolder));
  } catch (const CliError& error) {
    // Not a folder the service knows: perhaps a project, whose tree starts at its root folder.
    if (error.Result() != kelcore::kErrorRequestFailed && error.Result() != kelcore::kErrorFailed) throw;
    if (!FindProjectRoot(context, projectOrFolder, root)) {
      throw CliError(error.Result(), "no folder or project with the id " + projectOrFolder.ToString() + " (" +
                                         error.what() + ")",
                     error.Status());
    }
  }

  // The walk runs on the main loop: each listing's completion is a task there, which records it
  // and starts the next folders, so the bookkeeping needs no lock.
  std::map<Guid, Listing> listings;
  std::set<Guid> seen{root};
  std::deque<Guid> waiting{root};
  int inFlight = 0;
  std::exception_ptr failure;
  const auto loop = context.Host().Loop();
  std::function<void()> startMore = [&] {
    while (!failure && inFlight < kTreeConcurrency && !waiting.empty()) {
      const Guid folder = waiting.front();
      waiting.pop_front();
      ++inFlight;
      FolderPages::FetchAll(client, folder, kTreePageSize, {}, kTreePageSize, {})
          .Then(
              [&, folder](const kelcore::async::Future<ostriolib::Assets>& done) {
                --inFlight;
                if (auto error = done.GetException()) {
                  if (!failure) failure = error;
                  return;
                }
                const ostriolib::Assets assets = done.Get();
                Listing& listing = listings[folder];
                listing.files = assets.files;
                for (const auto& child : assets.folders) {
                  // A folder listed twice (a cycle, or a moved folder) is walked once.
                  if (!seen.insert(child).second) continue;
                  listing.folders.push_back(child);
                  waiting.push_back(child);
                }
                startMore();
              },
              loop);
    }
  };
  startMore();
  loop->RunUntil([&] { return inFlight == 0 && (waiting.empty() || failure); });
  if (failure) throw CliError::FromException(failure);

  std::size_t files = 0;
  for (const auto& [id, listing] : listings) files += listing.files.size();
  const std::size_t folders = seen.size() - 1;
  if (context.Json()) {
    Dictionary out = TreeJson(root, listings).AsDictionary();
    out.Set("folderCount", static_cast<unsigned long long>(folders));
    out.Set("fileCount", static_cast<unsigned long long>(files));
    CommandContext::PrintJson(out);
    return;
  }
  CommandContext::PrintLine("folder " + root.ToString());
  PrintTree(root, listings, 1);
  CommandContext::PrintLine(std::to_string(folders) + " folders, " + std::to_string(files) + " files");
}

}  // namespace ostrio

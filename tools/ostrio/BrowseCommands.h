#pragma once
// BrowseCommands: the signed-in user and what they can see: whoami, accounts, workspaces,
// projects, ls, count, tree.

#include <string>

#include "CommandContext.h"
#include "kelcore/Guid.h"

namespace ostrio {

// A page request: the page size and the cursor to start after; all: walk every page.
struct PageRequest {
  int first = 100;
  std::string after;
  bool all = false;
};

class BrowseCommands {
 public:
  static void WhoAmI(CommandContext& context);
  static void Accounts(CommandContext& context);
  static void Workspaces(CommandContext& context, const kelcore::utility::Guid& account, const PageRequest& page);
  static void Projects(CommandContext& context, const kelcore::utility::Guid& workspace, const PageRequest& page);
  // Folders and files page independently: each kind has its own page size and cursor.
  static void List(CommandContext& context, const kelcore::utility::Guid& folder, const PageRequest& folders,
                   const PageRequest& files);
  enum class CountKind { Workspaces, Projects, Assets };
  static void Count(CommandContext& context, CountKind kind, const kelcore::utility::Guid& id);
  // The whole tree under a folder, or under a project's root folder, a bounded number of
  // folders listed at a time.
  static void Tree(CommandContext& context, const kelcore::utility::Guid& projectOrFolder);

  // Folders listed at once by `tree`: enough to hide the round trips, few enough not to be
  // throttled by the service.
  static constexpr int kTreeConcurrency = 8;
  static constexpr int kTreePageSize = 500;
};

}  // namespace ostrio

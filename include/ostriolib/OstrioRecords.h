#pragma once
// The plain records the query resources return. Each owns its data (nothing points into an
// answer), so a caller may keep it after the resource that produced it is gone.

#include <cstdint>
#include <vector>

#include "kelcore/Guid.h"
#include "kelcore/ImmutableString.h"
#include "kelcore/Strings.h"
#include "ostriolib/OstrioExport.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_QUERIES);

namespace ostriolib {

// The head of every object the service returns.
struct OstrioObject {
  kelcore::utility::Guid id;
  kelcore::ImmutableString typeName;  // "__typename"
  kelcore::U8Str name;                // "name"; for accounts "displayName"
};

struct Account : OstrioObject {
  std::int32_t version = 0;
};

struct Project : OstrioObject {
  kelcore::utility::Guid rootAssetId;  // the folder to list with OstrioAssets
};

struct CurrentUser : OstrioObject {
  kelcore::U8Str email;
  kelcore::U8Str profileImageUrl;  // only for an "AuthenticatedUser"
};

// One page of a list; nextCursor is the "after" of the next page, empty after the last one.
struct WorkspaceList {
  std::vector<OstrioObject> workspaces;
  kelcore::U8Str nextCursor;
};

struct ProjectList {
  std::vector<Project> projects;
  kelcore::U8Str nextCursor;
};

// One page of a folder's children: sub-folders and files page independently, folders first.
struct Assets {
  std::vector<kelcore::utility::Guid> folders;
  std::vector<kelcore::utility::Guid> files;
  kelcore::U8Str foldersCursor;
  kelcore::U8Str filesCursor;
};

struct AssetCounts {
  std::int32_t folderCount = 0;
  std::int32_t fileCount = 0;
};

}  // namespace ostriolib

#include "ostriolib/OstrioAssets.h"

#include "OstrioQuery.h"

namespace ostriolib {
namespace {

constexpr std::string_view kSourcePath = "queries/src/OstrioAssets";
const QuerySite kLoadAssets{kSourcePath, "ostriolib::OstrioAssets::LoadAssets"};
const QuerySite kGetAssetCounts{kSourcePath, "ostriolib::OstrioAssets::GetAssetCounts"};

// The keys of this family alone, built on first use (after the shared keys they sit beside).
struct AssetKeys {
  kelcore::ImmutableString files{"files"};
  kelcore::ImmutableString folders{"folders"};
  kelcore::ImmutableString folderId{"folderId"};
  kelcore::ImmutableString assetType{"assetType"};
  kelcore::ImmutableString pageFiles{"pageFiles"};
  kelcore::ImmutableString pageFolders{"pageFolders"};
  kelcore::ImmutableString queryFiles{"queryFiles"};
  kelcore::ImmutableString queryFolders{"queryFolders"};
  kelcore::ImmutableString fileType{"FILE"};
  kelcore::ImmutableString folderType{"FOLDER"};
};
const AssetKeys& Keys() {
  static const AssetKeys keys;
  return keys;
}

kelcore::utility::Dictionary Filter(const kelcore::ImmutableString& type, const std::string& folderId) {
  return kelcore::utility::Dictionary{{Keys().assetType, type}, {Keys().folderId, folderId}};
}

// One alias of the answer: its ids in order, and its next cursor.
void ReadKind(const kelcore::utility::Dictionary& data, const kelcore::ImmutableString& alias,
              std::vector<kelcore::utility::Guid>& ids, kelcore::U8Str& cursor) {
  const auto paged = data.GetDictionary(alias.View());
  const auto nodes = OstrioQuery::Nodes(paged);
  ids.reserve(nodes.size());
  for (const auto& node : nodes) ids.push_back(OstrioQuery::Id(node, kKeyID));
  cursor = OstrioQuery::NextCursor(paged);
}

}  // namespace

kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioAssets>> OstrioAssets::LoadAssets(
    kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid folderId, int foldersFirst,
    kelcore::U8Str const& foldersAfter, int filesFirst, kelcore::U8Str const& filesAfter) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query GetFilesAndFolders($pageFiles: PageInput!, $pageFolders: PageInput!, $queryFiles: "
      "FolderAssetsQueryInput!, $queryFolders: FolderAssetsQueryInput!) {files:folderAssets(page: $pageFiles, query: "
      "$queryFiles) { nodes { id } pageInfo { endCursor hasNextPage } }folders:folderAssets(page: $pageFolders, "
      "query: $queryFolders) { nodes { id } pageInfo { endCursor hasNextPage } } }");
  const std::string id = folderId.ToString();
  const kelcore::utility::Dictionary variables{{Keys().pageFiles, OstrioQuery::PageInput(filesFirst, filesAfter)},
                                              {Keys().pageFolders, OstrioQuery::PageInput(foldersFirst, foldersAfter)},
                                              {Keys().queryFiles, Filter(Keys().fileType, id)},
                                              {Keys().queryFolders, Filter(Keys().folderType, id)}};
  // One kind may be left out (page size 0); asking for neither is a caller's mistake.
  const bool valid = foldersFirst >= 1 || filesFirst >= 1;
  return OstrioQuery::Load<OstrioAssets>(service, valid, query, variables, kLoadAssets);
}

Assets OstrioAssets::GetFolderAssets() const {
  Assets assets;
  const auto data = GetDictionary().GetDictionary(kKeyData.View());
  ReadKind(data, Keys().files, assets.files, assets.filesCursor);
  ReadKind(data, Keys().folders, assets.folders, assets.foldersCursor);
  return assets;
}

kelcore::async::Future<AssetCounts> OstrioAssets::GetAssetCounts(
    kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid const& folderId) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query GetAssetCountsByFolderID($page: PageInput!, $queryFiles: FolderAssetsQueryInput!, $queryFolders: "
      "FolderAssetsQueryInput!) {files:folderAssets(page: $page, query: $queryFiles) { totalCount "
      "}folders:folderAssets(page: $page, query: $queryFolders) { totalCount } }");
  const std::string id = folderId.ToString();
  const kelcore::utility::Dictionary variables{{kKeyPage, OstrioQuery::PageInput(0, {})},
                                              {Keys().queryFiles, Filter(Keys().fileType, id)},
                                              {Keys().queryFolders, Filter(Keys().folderType, id)}};
  return OstrioQuery::Count(service, query, variables, kGetAssetCounts, [](const kelcore::utility::Dictionary& data) {
    AssetCounts counts;
    counts.fileCount = OstrioQuery::Integer(data.GetDictionary(Keys().files.View()), kKeyTotalCount);
    counts.folderCount = OstrioQuery::Integer(data.GetDictionary(Keys().folders.View()), kKeyTotalCount);
    return counts;
  });
}

}  // namespace ostriolib

#pragma once
// A folder's children, sub-folders and files paged independently in one request, and their counts.

#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioExport.h"
#include "ostriolib/OstrioRecords.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_QUERIES);

namespace ostriolib {

class OSTRIOLIB_EXPORT OstrioAssets : public OstrioDictionaryResource {
  OSTRIOLIB_RESOURCE_CLASS(OstrioAssets)

  // Folders' page first, then files'. A page size below 1 asks for none of that kind (at least
  // one must be positive); a kind whose cursor came back empty is exhausted: pass 0 for it, or
  // it starts over.
  static kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioAssets>> LoadAssets(
      kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid folderId,
      int foldersFirst, kelcore::U8Str const& foldersAfter, int filesFirst, kelcore::U8Str const& filesAfter);
  Assets GetFolderAssets() const;
  static kelcore::async::Future<AssetCounts> GetAssetCounts(
      kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid const& folderId);
};

}  // namespace ostriolib

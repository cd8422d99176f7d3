#pragma once
// An account's workspaces, a page at a time, and their number.

#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioExport.h"
#include "ostriolib/OstrioRecords.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_QUERIES);

namespace ostriolib {

class OSTRIOLIB_EXPORT OstrioWorkspaceList : public OstrioDictionaryResource {
  OSTRIOLIB_RESOURCE_CLASS(OstrioWorkspaceList)

  // first: the page size (positive); after: the previous page's nextCursor, empty for the first.
  static kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioWorkspaceList>> LoadWorkspaceList(
      kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid const& accountId,
      int first, kelcore::U8Str const& after);
  WorkspaceList GetWorkspaceList() const;
  static kelcore::async::Future<int> GetWorkspaceCount(kelcore::classref::InterfaceRef<IOstrioService> const& service,
                                                       kelcore::utility::Guid const& accountId);
};

}  // namespace ostriolib

#pragma once
// A workspace's projects, a page at a time, and their number.

#include "ostriolib/OstrioDictionaryResource.h"
#include "ostriolib/OstrioExport.h"
#include "ostriolib/OstrioRecords.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_QUERIES);

namespace ostriolib {

class OSTRIOLIB_EXPORT OstrioProjectList : public OstrioDictionaryResource {
  OSTRIOLIB_RESOURCE_CLASS(OstrioProjectList)

  // first: the page size (positive); after: the previous page's nextCursor, empty for the first.
  static kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioProjectList>> LoadProjectList(
      kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid workspaceId, int first,
      kelcore::U8Str const& after);
  ProjectList GetProjectList() const;
  static kelcore::async::Future<int> GetProjectCount(kelcore::classref::InterfaceRef<IOstrioService> const& service,
                                                     kelcore::utility::Guid const& workspaceId);
};

}  // namespace ostriolib

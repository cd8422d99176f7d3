#pragma once
// FolderPages: every page of a folder's children. Sub-folders and files page independently, each
// with its own cursor; once one kind is done the other goes on alone (the finished kind is asked
// for one item, which is dropped: the service takes no page size of 0 for a list).

#include <memory>
#include <string>

#include "kelcore/Future.h"
#include "kelcore/Guid.h"
#include "ostriolib/OstrioClient.h"

namespace ostrio {

class FolderPages {
 public:
  // The merged record, both cursors empty. Fails with the first failing page's error, or with
  // kErrorFailed when the service hands back the cursor it was given (it would never end).
  static kelcore::async::Future<ostriolib::Assets> FetchAll(const std::shared_ptr<ostriolib::OstrioClient>& client,
                                                            const kelcore::utility::Guid& folder, int foldersFirst,
                                                            const std::string& foldersAfter, int filesFirst,
                                                            const std::string& filesAfter);
};

}  // namespace ostrio

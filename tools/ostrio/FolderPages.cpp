#include "FolderPages.h"

#include "kelcore/KelException.h"

namespace ostrio {
namespace {

struct Walk {
  std::shared_ptr<ostriolib::OstrioClient> client;
  kelcore::utility::Guid folder;
  int foldersFirst = 0;
  int filesFirst = 0;
  kelcore::U8Str foldersAfter;
  kelcore::U8Str filesAfter;
  bool foldersDone = false;
  bool filesDone = false;
  ostriolib::Assets merged;
};

// One kind's page: appended while the kind is still walking; true when the kind is done.
void Take(std::vector<kelcore::utility::Guid>& into, const std::vector<kelcore::utility::Guid>& page,
          kelcore::U8Str& after, const kelcore::U8Str& next, bool& done) {
  if (done) return;
  into.insert(into.end(), page.begin(), page.end());
  if (!next.empty() && next == after) {
    throw kelcore::kel_exception(kelcore::kErrorFailed, "the service returned the same page cursor twice");
  }
  after = next;
  done = next.empty();
}

kelcore::async::Future<ostriolib::Assets> Next(const std::shared_ptr<Walk>& walk) {
  static const kelcore::U8Str kNone;
  return walk->client
      ->GetFolderAssets(walk->folder, walk->foldersDone ? 1 : walk->foldersFirst,
                        walk->foldersDone ? kNone : walk->foldersAfter, walk->filesDone ? 1 : walk->filesFirst,
                        walk->filesDone ? kNone : walk->filesAfter)
      .ThenOnSuccess([walk](const kelcore::classref::InterfaceRef<ostriolib::OstrioAssets>& resource)
                         -> kelcore::async::Future<ostriolib::Assets> {
        const ostriolib::Assets page = resource->GetFolderAssets();
        Take(walk->merged.folders, page.folders, walk->foldersAfter, page.foldersCursor, walk->foldersDone);
        Take(walk->merged.files, page.files, walk->filesAfter, page.filesCursor, walk->filesDone);
        if (walk->foldersDone && walk->filesDone) return kelcore::async::MakeReadyFuture(walk->merged);
        return Next(walk);
      });
}

}  // namespace

kelcore::async::Future<ostriolib::Assets> FolderPages::FetchAll(const std::shared_ptr<ostriolib::OstrioClient>& client,
                                                                const kelcore::utility::Guid& folder, int foldersFirst,
                                                                const std::string& foldersAfter, int filesFirst,
                                                                const std::string& filesAfter) {
  auto walk = std::make_shared<Walk>();
  walk->client = client;
  walk->folder = folder;
  walk->foldersFirst = foldersFirst;
  walk->filesFirst = filesFirst;
  walk->foldersAfter = kelcore::ToU8Str(foldersAfter);
  walk->filesAfter = kelcore::ToU8Str(filesAfter);
  return Next(walk);
}

}  // namespace ostrio

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
  kelcore::async::Promise<ostriolib::Assets> result;
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

// Each page's continuation asks for the next page or completes the walk's one promise: no future
// waits on another, so a walk of many small pages builds no chain (and no deep unwinding).
void Next(const std::shared_ptr<Walk>& walk) {
  static const kelcore::U8Str kNone;
  walk->client
      ->GetFolderAssets(walk->folder, walk->foldersDone ? 1 : walk->foldersFirst,
                        walk->foldersDone ? kNone : walk->foldersAfter, walk->filesDone ? 1 : walk->filesFirst,
                        walk->filesDone ? kNone : walk->filesAfter)
      .Then([walk](const kelcore::async::Future<kelcore::classref::InterfaceRef<ostriolib::OstrioAssets>>& done) {
        try {
          const ostriolib::Assets page = done.Get()->GetFolderAssets();
          Take(walk->merged.folders, page.folders, walk->foldersAfter, page.foldersCursor, walk->foldersDone);
          Take(walk->merged.files, page.files, walk->filesAfter, page.filesCursor, walk->filesDone);
          if (walk->foldersDone && walk->filesDone) {
            walk->result.SetValue(std::move(walk->merged));
          } else {
            Next(walk);
          }
        } catch (...) {
          walk->result.SetException(std::current_exception());
        }
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
  Next(walk);
  return walk->result.GetFuture();
}

}  // namespace ostrio

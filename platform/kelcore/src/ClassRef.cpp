#include "kelcore/ClassRef.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace kelcore::classref {

namespace {

// Weak references, so watching an object never keeps it alive; expired ones are pruned as
// the list is read, which keeps it as small as the live set between counts.
struct Watched {
  std::mutex mutex;
  std::vector<std::weak_ptr<UnknownBase>> objects;
};

Watched& TheWatched() {
  static auto* watched = new Watched;  // objects may be registered and counted during exit
  return *watched;
}

}  // namespace

void ClassWatcher::AddObject(const std::shared_ptr<UnknownBase>& object) {
  if (!object) return;
  auto& watched = TheWatched();
  std::lock_guard lock(watched.mutex);
  watched.objects.emplace_back(object);
}

std::size_t ClassWatcher::LiveObjectCount() {
  auto& watched = TheWatched();
  std::lock_guard lock(watched.mutex);
  std::erase_if(watched.objects, [](const auto& object) { return object.expired(); });
  return watched.objects.size();
}

}  // namespace kelcore::classref

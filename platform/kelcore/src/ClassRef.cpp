#include "kelcore/ClassRef.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace kelcore::classref {

namespace {

// Weak references, so watching an object never keeps it alive. An expired weak reference
// still pins its control block, and with make_shared that is the object's whole allocation, so
// expired entries are pruned whenever the list has doubled since the last prune: a process
// that registers every resource and never counts stays at about twice its live set.
struct Watched {
  std::mutex mutex;
  std::vector<std::weak_ptr<UnknownBase>> objects;
  std::size_t pruneAt = 64;

  void Prune() {
    std::erase_if(objects, [](const auto& object) { return object.expired(); });
    pruneAt = std::max<std::size_t>(64, objects.size() * 2);
  }
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
  if (watched.objects.size() >= watched.pruneAt) watched.Prune();
  watched.objects.emplace_back(object);
}

std::size_t ClassWatcher::LiveObjectCount() {
  auto& watched = TheWatched();
  std::lock_guard lock(watched.mutex);
  watched.Prune();
  return watched.objects.size();
}

}  // namespace kelcore::classref

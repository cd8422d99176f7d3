#include "kelcore/Messaging.h"

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kelcore/Executor.h"
#include "kelcore/Guid.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"

namespace kelcore::messaging {

namespace {

// One subscription. Calls run under callMutex and unsubscribing clears `alive` under it, so
// once Unsubscribe returns no call is in progress on another thread and none can start. The
// mutex is recursive so that a handler may unsubscribe itself, or broadcast again, on the thread
// that is calling it.
//
// The one thing this cannot survive is a cycle across threads: two handlers, being called at
// the same moment on two threads, each destroying the other's listener. Messages are meant for
// the main thread, where that cannot happen.
struct Subscription {
  explicit Subscription(detail::ErasedHandler h) : handler(std::move(h)) {}
  std::recursive_mutex callMutex;
  bool alive = true;
  const detail::ErasedHandler handler;
};
using SubscriptionRef = std::shared_ptr<Subscription>;

struct Entry {
  std::uint64_t id;
  SubscriptionRef subscription;
};

struct StationListeners {
  std::unordered_map<std::type_index, std::vector<Entry>> byType;  // each in subscription order
};

struct Registry {
  std::mutex mutex;
  std::unordered_map<ImmutableString, StationListeners> stations;
  std::unordered_map<std::uint64_t, std::pair<ImmutableString, std::type_index>> byId;
  std::uint64_t nextId = 1;
};

Registry& TheRegistry() {
  // Never destroyed: listeners held by other statics unsubscribe during static destruction.
  static auto* registry = new Registry;
  return *registry;
}

void Silence(const SubscriptionRef& subscription) {
  std::lock_guard call(subscription->callMutex);
  subscription->alive = false;
}

void LogWarning(std::string message, const ImmutableString& station) {
  logging::LogWarning("kelcore", std::move(message), {{"station", station.ToStdString()}});
}

}  // namespace

ImmutableString UniqueStationID() { return ImmutableString("station-" + utility::Guid::CreateUnique().ToString()); }

void RegisterStation(const ImmutableString& station) {
  auto& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  registry.stations.try_emplace(station);
}

void DisposeStation(const ImmutableString& station) {
  auto& registry = TheRegistry();
  std::vector<SubscriptionRef> silenced;
  {
    std::lock_guard lock(registry.mutex);
    auto found = registry.stations.find(station);
    if (found == registry.stations.end()) return;
    for (auto& [type, entries] : found->second.byType) {
      for (auto& entry : entries) {
        registry.byId.erase(entry.id);
        silenced.push_back(std::move(entry.subscription));
      }
    }
    registry.stations.erase(found);
  }
  // Outside the registry lock: waiting for a running call while holding it would stall every
  // other station, and deadlock if that call subscribes or unsubscribes.
  for (const auto& subscription : silenced) Silence(subscription);
}

bool IsStationRegistered(const ImmutableString& station) {
  auto& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  return registry.stations.count(station) != 0;
}

namespace detail {

std::uint64_t Subscribe(const ImmutableString& station, std::type_index type, ErasedHandler handler) {
  auto subscription = std::make_shared<Subscription>(std::move(handler));
  auto& registry = TheRegistry();
  std::lock_guard lock(registry.mutex);
  auto found = registry.stations.find(station);
  if (found == registry.stations.end()) return 0;
  const auto id = registry.nextId++;
  found->second.byType[type].push_back(Entry{id, std::move(subscription)});
  registry.byId.emplace(id, std::make_pair(station, type));
  return id;
}

void Unsubscribe(std::uint64_t id) {
  auto& registry = TheRegistry();
  SubscriptionRef subscription;
  {
    std::lock_guard lock(registry.mutex);
    auto where = registry.byId.find(id);
    if (where == registry.byId.end()) return;  // already gone with its station
    const auto [station, type] = where->second;
    registry.byId.erase(where);
    auto& entries = registry.stations.at(station).byType.at(type);
    for (auto it = entries.begin(); it != entries.end(); ++it) {
      if (it->id == id) {
        subscription = std::move(it->subscription);
        entries.erase(it);
        break;
      }
    }
  }
  if (subscription) Silence(subscription);
}

void Deliver(const ImmutableString& station, std::type_index type, const void* message) {
  std::vector<SubscriptionRef> targets;
  {
    auto& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    auto found = registry.stations.find(station);
    if (found == registry.stations.end()) return;
    auto listeners = found->second.byType.find(type);
    if (listeners == found->second.byType.end()) return;
    targets.reserve(listeners->second.size());
    for (const auto& entry : listeners->second) targets.push_back(entry.subscription);
  }
  // Handlers run without the registry lock, so they may subscribe, unsubscribe or dispose.
  for (const auto& subscription : targets) {
    std::lock_guard call(subscription->callMutex);
    if (!subscription->alive) continue;
    try {
      subscription->handler(message);
    } catch (...) {
      // One failing listener must not rob the others of the message.
      LogWarning("Message listener threw: " + ExtractMessageFromException(std::current_exception()), station);
    }
  }
}

void PostDelivery(const ImmutableString& station, std::type_index type, std::shared_ptr<const void> message) {
  auto dispatcher = async::GetMainThreadDispatcher();
  if (!dispatcher) {
    // Listeners are promised the main thread; without a dispatcher there is no main thread to
    // deliver on, and delivering anywhere else would break every listener that touches UI state.
    // Said once per process: every later message would repeat it. It names the one call the host
    // is missing, since that is the only fix.
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true)) {
      LogWarning("No main-thread dispatcher installed, so messages are dropped: install one with "
                 "kelcore::async::InstallMainThreadDispatcher on the host's main thread",
                 station);
    }
    return;
  }
  dispatcher->Post([station, type, message = std::move(message)] { Deliver(station, type, message.get()); });
}

}  // namespace detail

}  // namespace kelcore::messaging

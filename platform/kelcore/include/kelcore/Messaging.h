#pragma once
// Messaging: stations (addresses), typed messages, listeners, broadcast on the main thread.
//
// A message type is MessageBase<Tag, Payload...>; listeners subscribe to one message type on
// one station and are removed when the Listener object is destroyed. Broadcasts reach every
// listener of that type on that station; AsyncBroadcastMessagePtr delivers later through the
// main-thread dispatcher (Executor.h), so listeners always run on the main thread.

#include <functional>
#include <memory>
#include <tuple>
#include <typeindex>
#include <utility>

#include "kelcore/ImmutableString.h"

namespace kelcore::messaging {

template <class Tag, class... Payload>
struct MessageBase {
  using TagType = Tag;
  MessageBase() = default;
  explicit MessageBase(Payload... values) : payload(std::move(values)...) {}
  template <std::size_t I>
  const auto& Get() const { return std::get<I>(payload); }
  std::tuple<Payload...> payload;
};

ImmutableString UniqueStationID();
void RegisterStation(const ImmutableString& station);
// Drops the station and every listener subscribed to it; later broadcasts to it do nothing.
void DisposeStation(const ImmutableString& station);
bool IsStationRegistered(const ImmutableString& station);

namespace detail {
using ErasedHandler = std::function<void(const void* message)>;
// Returns a subscription id (0 when the station is not registered).
std::uint64_t Subscribe(const ImmutableString& station, std::type_index type, ErasedHandler handler);
void Unsubscribe(std::uint64_t id);
// Calls each current listener of (station, type) on this thread. Listeners may subscribe or
// unsubscribe (themselves included) while being called.
void Deliver(const ImmutableString& station, std::type_index type, const void* message);
// Posts delivery to the main-thread dispatcher, keeping the message alive until then.
void PostDelivery(const ImmutableString& station, std::type_index type, std::shared_ptr<const void> message);
}  // namespace detail

template <class Message>
class Listener {
 public:
  Listener() = default;
  Listener(const ImmutableString& station, std::function<void(const Message&)> handler)
      : id_(detail::Subscribe(station, typeid(Message), [handler = std::move(handler)](const void* m) {
          handler(*static_cast<const Message*>(m));
        })) {}
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  Listener(Listener&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  Listener& operator=(Listener&& other) noexcept {
    if (this != &other) {
      Reset();
      id_ = std::exchange(other.id_, 0);
    }
    return *this;
  }
  ~Listener() { Reset(); }
  void Reset() {
    if (id_) detail::Unsubscribe(std::exchange(id_, 0));
  }
  bool IsSubscribed() const noexcept { return id_ != 0; }

 private:
  std::uint64_t id_ = 0;
};

// Delivers now, on the calling thread (meant to be the main thread).
template <class Message>
void BroadcastMessageOnMainThread(const ImmutableString& station, const Message& message) {
  detail::Deliver(station, typeid(Message), &message);
}

// Delivers later on the main thread; takes ownership of the message.
template <class Message>
void AsyncBroadcastMessagePtr(const ImmutableString& station, std::unique_ptr<Message> message) {
  std::shared_ptr<const void> erased(std::move(message));
  detail::PostDelivery(station, typeid(Message), std::move(erased));
}

}  // namespace kelcore::messaging

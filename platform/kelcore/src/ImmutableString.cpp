#include "kelcore/ImmutableString.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <ostream>

namespace kelcore {
namespace detail {

// One interned text. The characters follow the header in the same allocation; `chars` points at
// them so the empty sentinel can point at a literal instead.
struct InternedText {
  std::atomic<std::size_t> refs;
  std::size_t hash;
  std::size_t size;
  const char* chars;
};

}  // namespace detail

namespace {

using detail::InternedText;

// The empty string is shared by every empty ImmutableString and never counted, so default
// construction allocates nothing and touches no lock.
constinit InternedText sEmpty{{0}, 0, 0, ""};

constexpr unsigned kShardBits = 6;
constexpr std::size_t kShardCount = std::size_t{1} << kShardBits;

// An open-addressing set of entries with linear probing. Only touched under its shard's lock.
struct alignas(64) Shard {
  std::mutex mutex;
  InternedText** slots = nullptr;
  std::size_t capacity = 0;  // a power of two, or 0 before the first insertion
  std::size_t count = 0;

  // The slot holding `text`, or the empty slot where it would go.
  std::size_t Probe(std::string_view text, std::size_t hash) const noexcept {
    const std::size_t mask = capacity - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      const InternedText* entry = slots[i];
      if (!entry) return i;
      if (entry->hash == hash && entry->size == text.size() && std::memcmp(entry->chars, text.data(), text.size()) == 0) {
        return i;
      }
    }
  }

  void Grow() {
    const std::size_t newCapacity = capacity ? capacity * 2 : 16;
    auto** newSlots = new InternedText*[newCapacity]();
    const std::size_t mask = newCapacity - 1;
    for (std::size_t i = 0; i < capacity; ++i) {
      if (InternedText* entry = slots[i]) {
        std::size_t j = entry->hash & mask;
        while (newSlots[j]) j = (j + 1) & mask;
        newSlots[j] = entry;
      }
    }
    delete[] slots;
    slots = newSlots;
    capacity = newCapacity;
  }

  // Backward-shift deletion keeps every probe chain unbroken without tombstones.
  void Erase(const InternedText* entry) noexcept {
    const std::size_t mask = capacity - 1;
    std::size_t hole = entry->hash & mask;
    while (slots[hole] != entry) hole = (hole + 1) & mask;
    slots[hole] = nullptr;
    for (std::size_t j = (hole + 1) & mask; slots[j]; j = (j + 1) & mask) {
      const std::size_t home = slots[j]->hash & mask;
      // The entry at j may move into the hole unless its home lies cyclically in (hole, j].
      const bool homeBetween = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
      if (!homeBetween) {
        slots[hole] = slots[j];
        slots[j] = nullptr;
        hole = j;
      }
    }
    --count;
  }
};

// Never destroyed: strings held by other libraries' statics may be released after our own
// statics are gone.
Shard* Shards() {
  static Shard* const shards = new Shard[kShardCount];
  return shards;
}

Shard& ShardFor(std::size_t hash) noexcept {
  return Shards()[(hash >> (sizeof(std::size_t) * 8 - kShardBits)) & (kShardCount - 1)];
}

InternedText* Intern(std::string_view text) {
  if (text.empty()) return &sEmpty;
  const std::size_t hash = std::hash<std::string_view>{}(text);
  Shard& shard = ShardFor(hash);
  std::lock_guard lock(shard.mutex);
  if (shard.capacity) {
    const std::size_t slot = shard.Probe(text, hash);
    if (InternedText* found = shard.slots[slot]) {
      // Entries in the table always hold at least one reference: the last one is only dropped
      // under this lock, together with the removal.
      found->refs.fetch_add(1, std::memory_order_relaxed);
      return found;
    }
  }
  if ((shard.count + 1) * 4 > shard.capacity * 3) shard.Grow();
  void* memory = ::operator new(sizeof(InternedText) + text.size() + 1);
  char* chars = static_cast<char*>(memory) + sizeof(InternedText);
  std::memcpy(chars, text.data(), text.size());
  chars[text.size()] = '\0';
  auto* entry = new (memory) InternedText{{1}, hash, text.size(), chars};
  shard.slots[shard.Probe(text, hash)] = entry;
  ++shard.count;
  return entry;
}

void Retain(InternedText* entry) noexcept {
  if (entry != &sEmpty) entry->refs.fetch_add(1, std::memory_order_relaxed);
}

void Release(InternedText* entry) noexcept {
  if (entry == &sEmpty) return;
  std::size_t count = entry->refs.load(std::memory_order_relaxed);
  while (count > 1) {
    if (entry->refs.compare_exchange_weak(count, count - 1, std::memory_order_release, std::memory_order_relaxed)) {
      return;
    }
  }
  // Possibly the last reference. Dropping it under the shard lock means a concurrent Intern
  // either found the entry first (and the count stays above zero) or finds it gone.
  Shard& shard = ShardFor(entry->hash);
  {
    std::lock_guard lock(shard.mutex);
    if (entry->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    shard.Erase(entry);
  }
  entry->~InternedText();
  ::operator delete(entry);
}

}  // namespace

ImmutableString::ImmutableString() noexcept : text_(&sEmpty) {}

ImmutableString::ImmutableString(std::string_view text) : text_(Intern(text)) {}

ImmutableString::ImmutableString(const std::basic_string<unsigned char>& utf8)
    : text_(Intern(std::string_view(reinterpret_cast<const char*>(utf8.data()), utf8.size()))) {}

ImmutableString::ImmutableString(const ImmutableString& other) noexcept : text_(other.text_) { Retain(text_); }

ImmutableString::ImmutableString(ImmutableString&& other) noexcept : text_(other.text_) { other.text_ = &sEmpty; }

ImmutableString& ImmutableString::operator=(const ImmutableString& other) noexcept {
  Retain(other.text_);
  Release(text_);
  text_ = other.text_;
  return *this;
}

ImmutableString& ImmutableString::operator=(ImmutableString&& other) noexcept {
  if (this != &other) {
    Release(text_);
    text_ = other.text_;
    other.text_ = &sEmpty;
  }
  return *this;
}

ImmutableString::~ImmutableString() { Release(text_); }

std::string_view ImmutableString::View() const noexcept { return std::string_view(text_->chars, text_->size); }

const char* ImmutableString::c_str() const noexcept { return text_->chars; }

std::size_t ImmutableString::size() const noexcept { return text_->size; }

std::size_t ImmutableString::Hash() const noexcept { return text_->hash; }

std::size_t ImmutableString::InternedCount() {
  std::size_t total = 0;
  Shard* shards = Shards();
  for (std::size_t i = 0; i < kShardCount; ++i) {
    std::lock_guard lock(shards[i].mutex);
    total += shards[i].count;
  }
  return total;
}

std::ostream& operator<<(std::ostream& out, const ImmutableString& s) { return out << s.View(); }

}  // namespace kelcore

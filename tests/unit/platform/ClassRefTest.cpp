// Class references: interface lookup by the compiler-derived name, self references, and the
// live-object count that leak checks rely on.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "kelcore/ClassRef.h"

namespace kelcoretest {

class IGreeter {
 public:
  virtual ~IGreeter() = default;
  virtual int Greet() = 0;
};
class IUnrelated {
 public:
  virtual ~IUnrelated() = default;
};

class Greeter final : public IGreeter, public kelcore::classref::Unknown {
 public:
  int Greet() override { return 7; }
  KEL_CLASS_REGISTRATION(Greeter, IGreeter)
};

}  // namespace kelcoretest

using namespace kelcore::classref;
using kelcoretest::Greeter;

TEST(ClassRef, InterfacesAreFoundByQualifiedNameAndSelfReferencesWork) {
  InterfaceRef<Greeter> object = AllocateClassInstance<Greeter>();
  auto greeter = object.Query<kelcoretest::IGreeter>();
  ASSERT_TRUE(greeter);
  EXPECT_EQ(greeter->Greet(), 7);
  EXPECT_FALSE(object.Query<kelcoretest::IUnrelated>());
  EXPECT_EQ(object->WeakFromThisAs<Greeter>().lock().get(), object.get());
}

TEST(ClassWatcher, CountsObjectsRegisteredFromManyThreadsUntilTheyGo) {
  const auto baseline = ClassWatcher::LiveObjectCount();
  std::mutex mutex;
  std::vector<InterfaceRef<Greeter>> kept;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int k = 0; k < 100; ++k) {
        auto object = AllocateClassInstance<Greeter>();
        ClassWatcher::AddObject(object.Shared());
        if (k % 2 == 0) {
          std::lock_guard lock(mutex);
          kept.push_back(object);
        }
        ClassWatcher::LiveObjectCount();  // prunes concurrently with registration
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(ClassWatcher::LiveObjectCount(), baseline + 200);
  kept.clear();
  EXPECT_EQ(ClassWatcher::LiveObjectCount(), baseline);
}

// Counts the blocks allocate_shared holds: the object and its control block live in one, and
// it is freed only when the last weak reference goes too.
static std::atomic<long> sLiveBlocks{0};
template <class T>
struct CountingAllocator : std::allocator<T> {
  CountingAllocator() = default;
  template <class U>
  CountingAllocator(const CountingAllocator<U>&) noexcept {}
  T* allocate(std::size_t n) {
    ++sLiveBlocks;
    return std::allocator<T>::allocate(n);
  }
  void deallocate(T* p, std::size_t n) noexcept {
    --sLiveBlocks;
    std::allocator<T>::deallocate(p, n);
  }
};

TEST(ClassWatcher, WatchingShortLivedObjectsDoesNotKeepTheirMemory) {
  // A client registers every resource it creates and nobody ever asks for the count.
  for (int i = 0; i < 10000; ++i) ClassWatcher::AddObject(std::allocate_shared<Greeter>(CountingAllocator<Greeter>()));
  EXPECT_LT(sLiveBlocks.load(), 200);
}

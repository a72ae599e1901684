#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "platform/Synchronization.h"

namespace orvane {
namespace {

struct Thing : NSObject {
  ~Thing() override { onDestruction(); }
  std::function<void()> onDestruction = [] {};
};

TEST(Ref, StoresTheNewObjectBeforeReleasingTheOldOne) {
  Ref<Thing> holder = Ref<Thing>::adopt(new Thing);
  const Thing* seen = nullptr;
  holder->onDestruction = [&] { seen = holder.get(); };
  holder = Ref<Thing>::adopt(new Thing);
  EXPECT_EQ(seen, holder.get());
}

TEST(RecursiveMutex, LocksOnceInitialised) {
  static RecursiveMutex mutex;
  EXPECT_FALSE(mutex.unlock() || mutex.lock()) << "before initialise()";
  ASSERT_FALSE(mutex.initialise() || mutex.lock());
  ASSERT_FALSE(mutex.initialise() || mutex.lock() || mutex.unlock()) << "initialised and locked a second time";
  auto other = std::async(std::launch::async, [] { return mutex.lock() || mutex.unlock(); });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout)
      << "another thread got the lock";
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_FALSE(other.get());
}

TEST(ObjectMonitor, LetsOneThreadIn) {
  const Ref<Thing> object = Ref<Thing>::adopt(new Thing);
  int count = 0;
  auto holdOften = [&] {
    for (int i = 0; i < 15000; ++i) {
      ObjectMonitor outer(object.get()), inner(object.get());
      ++count;
    }
  };
  auto first = std::async(std::launch::async, holdOften), second = std::async(std::launch::async, holdOften);
  first.get();
  second.get();
  EXPECT_EQ(count, 30000);
}

// With a fixed number of monitors, some of the 500 objects would share one, and their threads would block each other.
TEST(ObjectMonitor, BelongsToOneObject) {
  std::vector<Ref<Thing>> objects(500);
  for (auto& object : objects) object = Ref<Thing>::adopt(new Thing);
  const Thing* held = objects.front().get();
  auto hold = std::make_unique<ObjectMonitor>(held);
  auto others = std::async(std::launch::async, [&] {
    for (size_t i = 1; i < objects.size(); ++i) ObjectMonitor monitor(objects[i].get());
  });
  others.get();
  auto same = std::async(std::launch::async, [&] { ObjectMonitor monitor(held); });
  EXPECT_EQ(same.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  hold.reset();
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <vector>

#include "platform/Synchronization.h"

namespace orvane {
namespace {

class Thing : public NSObject {};

TEST(RecursiveMutex, EarlyUseFailsOrLocksOutTheRunThatFollows) {
  static RecursiveMutex mutex;
  EXPECT_FALSE(mutex.unlock() || mutex.lock()) << "before it works";
  ASSERT_FALSE(mutex.initialise() || mutex.lock());
  ASSERT_FALSE(mutex.initialise() || mutex.lock() || mutex.unlock()) << "again, and within itself";
  auto other = std::async(std::launch::async, [] { return mutex.lock() || mutex.unlock(); });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout) << "the first lock is lost";
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_FALSE(other.get());
}

// An entry of the side table that goes too early, or stays with a stale state, lets two threads in at once; with a
// fixed number of shared monitors two objects would collide.
TEST(ObjectMonitor, LetsTwoThreadsInAtOnceOrHoldsObjectsTogether) {
  std::vector<Ref<Thing>> objects(500);
  for (auto& object : objects) object = Ref<Thing>::adopt(new Thing);
  const Thing* held = objects.front().get();
  int count = 0;
  auto holdOften = [&] {
    for (int i = 0; i < 15000; ++i) {
      ObjectMonitor outer(held), inner(held);
      ++count;
    }
  };
  auto first = std::async(std::launch::async, holdOften), second = std::async(std::launch::async, holdOften);
  first.get();
  second.get();
  EXPECT_EQ(count, 30000);

  auto hold = std::make_unique<ObjectMonitor>(held);
  auto others = std::async(std::launch::async, [&] {
    for (size_t i = 1; i < objects.size(); ++i) ObjectMonitor monitor(objects[i].get());
  });
  EXPECT_EQ(others.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  auto same = std::async(std::launch::async, [&] { ObjectMonitor monitor(held); });
  EXPECT_EQ(same.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  hold.reset();
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Synchronization.h"

namespace orvane {
namespace {

class Thing : public NSObject {};

Ref<Thing> thing() { return Ref<Thing>::adopt(new Thing); }

TEST(RecursiveMutex, EarlyUseDoesNotFailOrLockOutTheRunThatFollows) {
  static RecursiveMutex mutex;
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_EQ(mutex.lock(), 0);
  ASSERT_EQ(mutex.initialise(), 0);
  EXPECT_EQ(mutex.lock(), 0);
  ASSERT_EQ(mutex.initialise(), 0) << "again";
  EXPECT_EQ(mutex.lock(), 0) << "within itself, and still the same mutex";
  EXPECT_EQ(mutex.unlock(), 0);
  auto other = std::async(std::launch::async, [] { return mutex.lock() + mutex.unlock(); });
  EXPECT_EQ(other.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout) << "the first lock is lost";
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_EQ(other.get(), 0);
}

// Many short holds by several threads, of several objects: an entry of the side table that goes too early, or stays
// with a stale state, lets two threads in at once.
TEST(ObjectMonitor, LetsTwoThreadsInAtOnceWhenItsEntryComesAndGoes) {
  constexpr size_t kObjects = 3;
  std::array<Ref<Thing>, kObjects> objects{thing(), thing(), thing()};
  std::array<long, kObjects> counts{};
  std::array<std::thread, 4> threads;
  for (size_t t = 0; t < threads.size(); ++t) {
    threads.at(t) = std::thread([&, t] {
      for (size_t i = 0; i < 15000; ++i) {
        size_t which = (i + t) % kObjects;
        ObjectMonitor outer(objects[which].get());
        ObjectMonitor inner(objects[which].get());
        ++counts[which];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counts, (std::array<long, kObjects>{20000, 20000, 20000}));
}

// While one object is held, every other one must be free: with a fixed number of shared monitors two would collide.
TEST(ObjectMonitor, TwoObjectsShareAMonitor) {
  auto held = thing();
  std::vector<Ref<Thing>> others(500);
  for (auto& other : others) other = thing();
  auto hold = std::make_unique<ObjectMonitor>(held.get());
  auto all = std::async(std::launch::async, [&] {
    for (auto& other : others) ObjectMonitor monitor(other.get());
  });
  EXPECT_EQ(all.wait_for(std::chrono::seconds(20)), std::future_status::ready);

  auto same = std::async(std::launch::async, [&] { ObjectMonitor monitor(held.get()); });
  EXPECT_EQ(same.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  hold.reset();
  same.get();
  ObjectMonitor ofNothing(nullptr);
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <string>
#include <thread>

#include "companion/watch/PathWatch.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

bool is_readable(const PathWatch& watch) {
  pollfd waited{watch.descriptor(), POLLIN, 0};
  return poll(&waited, 1, 0) == 1;
}

// A program that writes without a pause must not keep the caller in readEvents().
TEST(PathWatch, ReadsABoundedNumberOfEventsAtATime) {
  const TemporaryFolder folder;
  PathWatch watch({folder.path() / "list"});
  for (int i = 0; i < 1000; ++i) folder.write(std::to_string(i), "");
  EXPECT_FALSE(watch.readEvents());
  EXPECT_TRUE(is_readable(watch));
  folder.write("list", "");
  bool isReported = false;
  while (is_readable(watch)) isReported = watch.readEvents() || isReported;
  EXPECT_TRUE(isReported) << "the event behind the others";
  EXPECT_EQ(watch.fault(), "");
}

TEST(PathWatch, AsksToLookAtTheFilesEveryTwoSecondsWhileItCannotWatch) {
  using namespace std::chrono_literals;
  const TemporaryFolder folder;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto start = PathWatch::Clock::now();
  PathWatch watch({folder.path() / "list"});
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_NE(watch.fault(), "");
  const auto due = watch.lookAt();
  ASSERT_GE(due, start + 2s);
  ASSERT_LT(due, start + 60s);
  EXPECT_FALSE(watch.isLookDue()) << "before that time";
  std::this_thread::sleep_until(due);
  EXPECT_TRUE(watch.isLookDue());
  EXPECT_EQ(watch.fault(), "") << "it has tried again to watch";
  EXPECT_FALSE(watch.isLookDue()) << "after the fault";
}

}  // namespace
}  // namespace orvane

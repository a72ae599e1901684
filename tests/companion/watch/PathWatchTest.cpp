#include <gtest/gtest.h>
#include <poll.h>

#include <string>

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

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "platform/linux/netfilter/PacketQueue.h"

namespace orvane {
namespace {

// The kernel answers EPERM both if another program has the queue and if the privilege is missing. The extension may use
// the proxy instead only if the privilege is missing.
TEST(PacketQueue, NoticesThatAnotherProgramHasTheQueue) {
  const uid_t user = geteuid();
  if ((user != 0 && unshare(CLONE_NEWUSER) != 0) || unshare(CLONE_NEWNET) != 0) {
    GTEST_SKIP() << "cannot make a network namespace";
  }
  PacketQueue first(7), second(7), other(8);
  ASSERT_EQ(first.open(), std::nullopt);
  EXPECT_EQ(other.open(), std::nullopt);
  EXPECT_TRUE(second.open().has_value());
  EXPECT_TRUE(second.isTaken());
}

}  // namespace
}  // namespace orvane

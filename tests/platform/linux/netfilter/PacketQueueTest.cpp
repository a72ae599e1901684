#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <thread>

#include "platform/linux/netfilter/PacketQueue.h"

namespace orvane {
namespace {

// The kernel answers EPERM also if the privilege is missing, and only then may the extension use the proxy.
TEST(PacketQueue, WaitsForTheQueueAndReportsThatAnotherProgramHasIt) {
  const uid_t user = geteuid();
  if ((user != 0 && unshare(CLONE_NEWUSER) != 0) || unshare(CLONE_NEWNET) != 0) {
    GTEST_SKIP() << "cannot make a network namespace";
  }
  std::optional<PacketQueue> first(7);
  PacketQueue second(7), other(8);
  ASSERT_EQ(first->open(), std::nullopt);
  EXPECT_EQ(other.open(), std::nullopt);
  EXPECT_TRUE(second.open().has_value());
  EXPECT_TRUE(second.isTaken());
  // open() waits for some seconds. On a slow machine, the owner may end too late for that. Then repeat.
  std::optional<std::string> error = "not opened";
  for (int attempt = 0; attempt < 10 && error; ++attempt) {
    first->open();
    std::jthread end([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      first.emplace(7);
    });
    error = second.open();
  }
  EXPECT_EQ(error, std::nullopt) << "the owner ends soon";
}

}  // namespace
}  // namespace orvane

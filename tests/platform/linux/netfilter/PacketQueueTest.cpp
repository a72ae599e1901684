#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/netfilter/PacketQueue.h"

namespace orvane {
namespace {

// The kernel answers EPERM both if another program has the queue and if the privilege is missing. The extension must
// tell the two cases apart, because it may use the proxy instead only if the privilege is missing.
TEST(PacketQueue, TellsATakenQueueFromAMissingPrivilege) {
  const uid_t user = geteuid();
  if ((user != 0 && unshare(CLONE_NEWUSER) != 0) || unshare(CLONE_NEWNET) != 0) {
    GTEST_SKIP() << "cannot make a network namespace";
  }
  PacketQueue first(7), second(7), other(8);
  ASSERT_EQ(first.open(), std::nullopt);
  EXPECT_EQ(other.open(), std::nullopt);
  EXPECT_TRUE(second.open().has_value());
  EXPECT_TRUE(second.isTaken());

  const pid_t child = fork();
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    if (syscall(SYS_capset, &header, none) != 0) _exit(2);
    PacketQueue denied(9);
    _exit(denied.open().value_or("").find("CAP_NET_ADMIN") != std::string::npos && !denied.isTaken() ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace orvane

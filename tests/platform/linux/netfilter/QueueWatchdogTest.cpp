#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "platform/linux/netfilter/QueueWatchdog.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr uint16_t kQueue = 7;

// A socket pair stands in for the queue's netlink socket.
class QueueWatchdogTest : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    queue = Descriptor(ends[0]);
    kernel = Descriptor(ends[1]);
    ASSERT_EQ(watchdog.start(queue.get(), kQueue), std::nullopt);
  }

  // Whether the watchdog unbinds the queue within the time.
  bool unbinds(std::chrono::milliseconds time) {
    pollfd entry{kernel.get(), POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(time.count())) != 1) return false;
    alignas(nlmsghdr) char bytes[512];
    EXPECT_GT(recv(kernel.get(), bytes, sizeof bytes, 0), 0);
    auto* header = reinterpret_cast<nlmsghdr*>(bytes);
    auto* message = static_cast<nfgenmsg*>(mnl_nlmsg_get_payload(header));
    auto* attribute = static_cast<nlattr*>(mnl_nlmsg_get_payload_offset(header, sizeof *message));
    auto* command = static_cast<nfqnl_msg_config_cmd*>(mnl_attr_get_payload(attribute));
    EXPECT_EQ(ntohs(message->res_id), kQueue);
    EXPECT_EQ(command->command, NFQNL_CFG_CMD_UNBIND);
    return true;
  }

  Descriptor queue, kernel;
  QueueWatchdog watchdog;
};

TEST_F(QueueWatchdogTest, ReplacesAChildThatDied) {
  pid_t child = 0;
  std::ifstream("/proc/thread-self/children") >> child;
  ASSERT_GT(child, 0);
  kill(child, SIGKILL);
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  for (int i = 0; i < 20; ++i) watchdog.beat();
  EXPECT_TRUE(unbinds(3s));
}

}  // namespace
}  // namespace orvane

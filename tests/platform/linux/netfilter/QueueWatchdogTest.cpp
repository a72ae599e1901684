#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>
#include <tuple>

#include "platform/linux/netfilter/QueueWatchdog.h"
#include "support/Sockets.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr uint16_t kQueue = 7;

// A socket pair stands in for the queue's netlink socket.
class QueueWatchdogTest : public testing::Test {
 protected:
  void SetUp() override {
    std::tie(queue, kernel) = socket_pair(SOCK_DGRAM);
    ASSERT_EQ(watchdog.start(queue.get(), kQueue), std::nullopt);
    std::ifstream("/proc/thread-self/children") >> child;
    ASSERT_GT(child, 0);
  }

  // Imitates a packet that waits in the socket's buffer.
  void addPacket() { ASSERT_EQ(send(kernel.get(), "", 1, 0), 1); }

  // Waits until the child reports that it released the queue.
  bool wasReleased() {
    for (int i = 0; i < 10'000; ++i, std::this_thread::sleep_for(10ms)) {
      if (watchdog.beat()) return true;
    }
    return false;
  }

  // Whether the watchdog unbinds the queue within this time. Calls `probed` with the number of each of its probes.
  bool unbinds(std::chrono::milliseconds time, const std::function<void(uint32_t)>& probed = nullptr) {
    const auto end = std::chrono::steady_clock::now() + time;
    for (auto left = time; left > 0ms;
         left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now())) {
      pollfd entry{kernel.get(), POLLIN, 0};
      if (poll(&entry, 1, static_cast<int>(left.count())) != 1) return false;
      alignas(nlmsghdr) char bytes[512];
      EXPECT_GT(recv(kernel.get(), bytes, sizeof bytes, 0), 0);
      auto* header = reinterpret_cast<nlmsghdr*>(bytes);
      auto* message = static_cast<nfgenmsg*>(mnl_nlmsg_get_payload(header));
      auto* attribute = static_cast<nlattr*>(mnl_nlmsg_get_payload_offset(header, sizeof *message));
      auto* command = static_cast<nfqnl_msg_config_cmd*>(mnl_attr_get_payload(attribute));
      EXPECT_EQ(ntohs(message->res_id), kQueue);
      if (command->command == NFQNL_CFG_CMD_UNBIND) return true;
      EXPECT_EQ(command->command, NFQNL_CFG_CMD_PF_UNBIND);
      EXPECT_TRUE(header->nlmsg_flags & NLM_F_ACK);
      if (probed) probed(header->nlmsg_seq);
    }
    return false;
  }

  // Waits until the child has slept for 0.7 s, which is longer than two checks take. False if that never happens.
  bool fallsAsleep() {
    uint64_t before = 0, now = 0;
    for (int i = 0; i < 60; ++i, before = now, std::this_thread::sleep_for(700ms)) {
      uint64_t ran, waited;
      std::ifstream("/proc/" + std::to_string(child) + "/schedstat") >> ran >> waited >> now;
      if (now == before) return true;
    }
    return false;
  }

  Descriptor queue, kernel;
  pid_t child = 0;
  QueueWatchdog watchdog;
};

TEST_F(QueueWatchdogTest, ReplacesAChildThatDied) {
  kill(child, SIGKILL);
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  pollfd died{watchdog.childDescriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&died, 1, 0), 1);
  watchdog.revive();
  watchdog.beat();
  EXPECT_TRUE(unbinds(30s));
}

TEST_F(QueueWatchdogTest, WakesUpWhenAPacketArrives) {
  const auto readPackets = [this] {
    watchdog.beat();
    for (char byte; recv(queue.get(), &byte, 1, MSG_DONTWAIT) > 0;) {
    }
  };
  const std::tuple<const char*, std::function<void()>> hangs[] = {
      {"hangs before it reads the packet", [] {}},
      {"hangs after it has read the packet", readPackets},
  };
  for (const auto& [name, hang] : hangs) {
    SCOPED_TRACE(name);
    readPackets();
    watchdog.rest();
    EXPECT_TRUE(fallsAsleep());
    addPacket();
    hang();
    EXPECT_TRUE(unbinds(60s));
    EXPECT_TRUE(wasReleased());
  }
}

TEST_F(QueueWatchdogTest, ReleasesAQueueWhosePacketsWaitTooLong) {
  watchdog.beat();
  addPacket();
  // The watchdog sends four probes a second. isLate() imitates a thread that reads each answer two seconds (8 probes)
  // late, which is allowed. fallsBehind() imitates a thread that reads the answers later and later.
  const auto isLate = [this](uint32_t probe) {
    watchdog.beat();
    if (probe > 8) watchdog.setAnswered(probe - 8);
  };
  const auto fallsBehind = [this](uint32_t probe) {
    watchdog.beat();
    watchdog.setAnswered(std::max(8U, probe / 2));
  };
  EXPECT_FALSE(unbinds(4s, isLate));
  EXPECT_TRUE(unbinds(60s, fallsBehind));
  EXPECT_TRUE(wasReleased());
  EXPECT_FALSE(unbinds(1s, isLate)) << "the packets that waited are gone";
}

TEST_F(QueueWatchdogTest, WaitsForAThreadThatHasTooLittleProcessorTime) {
  std::atomic<bool> isBusy = true;
  std::jthread server([&](const std::stop_token& stop) {
    watchdog.beat();
    while (isBusy) {
    }
    while (!stop.stop_requested()) std::this_thread::sleep_for(10ms);
  });
  EXPECT_FALSE(unbinds(3s));
  isBusy = false;
  EXPECT_TRUE(unbinds(60s)) << "the thread sleeps, so it hangs";
}

}  // namespace
}  // namespace orvane

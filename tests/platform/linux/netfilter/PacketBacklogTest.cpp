#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <vector>

#include "platform/linux/netfilter/PacketBacklog.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

constexpr PacketBacklog::Clock::time_point kNow{};
constexpr auto kNeverDrops = [](const QueuedPacket&) { FAIL(); };

QueuedPacket packet(uint32_t user, uint32_t id, std::span<const uint8_t> bytes = {}) {
  return {id, 0, false, 1, user, bytes, bytes.size()};
}

// Takes up to `count` packets, and charges each with `time`. Returns their ids.
std::vector<uint32_t> take(PacketBacklog& backlog, size_t count, PacketBacklog::Clock::duration time = 1ms) {
  std::vector<uint32_t> ids;
  for (size_t i = 0; i < count; ++i) {
    auto next = backlog.next();
    if (!next) break;
    ids.push_back(next->queued.id);
    backlog.charge(time);
  }
  return ids;
}

TEST(PacketBacklog, KeepsTheOrderAndTheBytesOfAUsersPackets) {
  PacketBacklog backlog;
  std::vector<uint8_t> bytes(1000);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  const auto sent = bytes;
  backlog.add(packet(7, 1, bytes), kNow, kNeverDrops);
  backlog.add(packet(7, 2), kNow + 5s, kNeverDrops);
  bytes.assign(bytes.size(), 0);  // as the queue does: it reads its next message into the same memory
  auto first = backlog.next();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->queued.id, 1u);
  EXPECT_TRUE(std::equal(sent.begin(), sent.end(), first->queued.bytes.begin(), first->queued.bytes.end()));
  auto second = backlog.next();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->since, kNow + 5s);
  EXPECT_TRUE(backlog.empty());
  EXPECT_FALSE(backlog.next());
}

TEST(PacketBacklog, SharesTheTimeEquallyBetweenUsers) {
  PacketBacklog backlog;
  for (uint32_t id = 0; id < 100; ++id) backlog.add(packet(65534, id), kNow, kNeverDrops);
  EXPECT_EQ(take(backlog, 50, 10ms).size(), 50u);
  // A user whose first packet comes now does not wait for the flood, and gets no extra time for earlier silence.
  for (uint32_t id = 1000; id < 1030; ++id) backlog.add(packet(1000, id), kNow, kNeverDrops);
  size_t victims = 0;
  for (uint32_t id : take(backlog, 30)) victims += id >= 1000;
  // The flood's last packet took 10 ms. So the new user first gets 10 packets (10 ms), and then 10 of the other 20.
  EXPECT_NEAR(victims, 20, 1);
}

TEST(PacketBacklog, ServesAUserWithSlowPacketsLessOften) {
  PacketBacklog backlog;
  std::vector<uint32_t> served;
  for (uint32_t turn = 0; turn < 200; ++turn) {
    // In each turn, each user has one packet in the backlog.
    for (uint32_t user : {1u, 2u}) {
      if (turn > 0 && served.back() != user) continue;
      backlog.add(packet(user, user), kNow, kNeverDrops);
    }
    served.push_back(backlog.next()->queued.user);
    backlog.charge(100us);
    if (served.back() == 1) backlog.charge(1, 12ms);  // for other work
  }
  EXPECT_LE(std::count(served.begin(), served.end(), 1u), 3);
}

TEST(PacketBacklog, DropsTheOldestPacketsOfTheUserWhoTakesTooMuchRoom) {
  PacketBacklog backlog;
  std::vector<std::pair<uint32_t, uint32_t>> dropped;  // user, id
  auto add = [&](uint32_t user, uint32_t id, std::span<const uint8_t> bytes = {}) {
    backlog.add(packet(user, id, bytes), kNow, [&](const auto& each) { dropped.emplace_back(each.user, each.id); });
  };
  for (uint32_t id = 0; id <= PacketBacklog::kPacketsOfUser; ++id) add(1, id);
  EXPECT_EQ(dropped, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 0}}));
  // Eight users fill the backlog. The packets of a ninth user still find room.
  const std::vector<uint8_t> large(60000);
  for (uint32_t user = 10; user < 18; ++user) {
    for (uint32_t id = 0; id < PacketBacklog::kBytesOfUser / large.size(); ++id) add(user, id, large);
  }
  dropped.clear();
  for (uint32_t id = 0; id < 10; ++id) add(20, id, large);
  ASSERT_FALSE(dropped.empty());
  for (const auto& each : dropped) EXPECT_NE(each.first, 20u);
}

}  // namespace
}  // namespace orvane

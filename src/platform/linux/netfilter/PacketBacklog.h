#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "platform/linux/netfilter/PacketQueue.h"

namespace orvane {

// Packets that were read from the kernel's queue and not judged yet. The queue's thread divides its time equally among
// the users who have packets here. So if a user sends a flood, or packets that take long to judge, only packets of the
// same user are delayed.
//
// Not thread-safe: belongs to the queue's thread.
class PacketBacklog {
 public:
  using Clock = std::chrono::steady_clock;

  // Limits on the packets of one user. Real programs stay far below the limits: a browser that restores a hundred tabs
  // sends some hundred packets at once.
  static constexpr size_t kPacketsOfUser = 4096, kBytesOfUser = size_t{16} << 20;
  // Limit on the bytes of all users' packets. Without it, somebody who has many user ids, such as the owner of a user
  // namespace, could fill the memory.
  static constexpr size_t kBytes = size_t{128} << 20;
  // A packet that has waited for longer than this is dropped without a verdict. Its sender will send it again.
  static constexpr std::chrono::milliseconds kLongestWait{1000};

  struct Packet {
    QueuedPacket queued;         // `queued.bytes` refers to `bytes`
    std::vector<uint8_t> bytes;  // the packet's bytes; moving the Packet does not change their address
    Clock::time_point since;     // when the packet was added
  };

  // Adds a copy of the packet. If a limit of its user is then exceeded, removes this user's oldest packets and calls
  // `drop` for each. If the limit of all users is exceeded, removes the oldest packets of the user with the most bytes.
  void add(const QueuedPacket& packet, Clock::time_point now, const std::function<void(const QueuedPacket&)>& drop);

  // Removes and returns a packet: of the users who have packets here, it chooses the one who has used the least time,
  // and takes this user's oldest packet. Nothing if there are no packets.
  std::optional<Packet> next();

  // Adds `time` to the time that the user of the last packet from next() has used.
  void charge(Clock::duration time);

  // Adds `time` to the time that this user has used.
  void charge(uid_t user, Clock::duration time);

  bool empty() const { return waiting_ == 0; }
  void clear();

 private:
  struct User {
    std::deque<Packet> packets;
    size_t bytes = 0;
    Clock::duration used{};  // the time that judging the user's packets took; begins at `level_`, not at 0
  };

  User& find(uid_t user);
  Packet takeOldest(User& user);

  std::map<uint32_t, User> users_;  // those who have packets, or whose `used` is above `level_`
  User* last_ = nullptr;            // the user of the last packet from next()
  Clock::duration level_{};         // rises to a user's `used` when next() chooses this user
  size_t waiting_ = 0, bytes_ = 0;
};

}  // namespace orvane

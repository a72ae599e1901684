#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "platform/linux/netfilter/PacketQueue.h"

namespace orvane {

// Packets that were read from the queue and wait for the queue's thread. The users whose packets wait share its time
// equally, so a flood, or packets that take long to judge, delay only their own user's packets.
//
// Not thread-safe: belongs to the queue's thread.
class PacketBacklog {
 public:
  using Clock = std::chrono::steady_clock;

  // What one user's packets may take here. Real programs stay far below: a browser that restores a hundred tabs sends
  // some hundred packets at once.
  static constexpr size_t kPacketsOfUser = 4096, kBytesOfUser = size_t{16} << 20;
  // What all packets may take. Whoever has many user ids, as the owner of a user namespace does, meets this limit.
  static constexpr size_t kBytes = size_t{128} << 20;
  // A packet that waited so long is not worth its judgement: its sender sends it again.
  static constexpr std::chrono::milliseconds kLongestWait{1000};

  struct Packet {
    QueuedPacket queued;         // its bytes are those below
    std::vector<uint8_t> bytes;  // their place in memory does not change when the packet is moved
    Clock::time_point since;
  };

  // Copies the packet. Returns false when its user, or all users together, have no room left.
  bool add(const QueuedPacket& packet, Clock::time_point now);

  // Takes the oldest packet of the user who had the least time. Nothing when no packet waits.
  std::optional<Packet> next();

  // Counts the time that the last packet from next() took.
  void charge(Clock::duration time);

  bool empty() const { return waiting_ == 0; }
  void clear();

 private:
  struct User {
    std::deque<Packet> packets;
    size_t bytes = 0;
    Clock::duration used{};  // grows while packets of the user are judged; comparable between users
  };

  std::map<uint32_t, User> users_;  // those with packets, and those that are ahead of `level_`
  User* last_ = nullptr;            // whose packet next() returned
  Clock::duration level_{};         // what that user had used before; whoever comes now begins there
  size_t waiting_ = 0, bytes_ = 0;
};

}  // namespace orvane

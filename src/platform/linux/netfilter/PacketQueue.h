#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace orvane {

// An outbound packet that the kernel holds until answer() names it.
struct QueuedPacket {
  uint32_t id;
  uint32_t mark;                   // of the packet
  uint32_t outputInterface;        // 0 when not known yet
  std::span<const uint8_t> bytes;  // from the IP header on; valid during the call
};

// A packet queue of the network namespace that the thread is in when it opens it (nfnetlink_queue). It fails open: what
// the queue has no room for passes. At the end of its socket the kernel drops the packets that it holds and lets others
// pass. Large segments come whole. Not thread-safe.
class PacketQueue {
 public:
  explicit PacketQueue(uint16_t number) : number_(number) {}

  // Needs CAP_NET_ADMIN in the namespace, and that no other socket has the queue. Returns what went wrong.
  std::optional<std::string> open();

  // Whether open() failed because another program has the queue.
  bool isTaken() const { return taken_; }

  // Takes the queue again after somebody gave it up in this socket's name.
  void bindAgain();

  // The netlink socket: readable when read() has something. Non-blocking.
  int descriptor() const;

  enum class Read {
    Packet,   // the handler was called for one
    Other,    // an error message of the kernel's, such as for a verdict that came too late
    Nothing,  // no more for now
    Overrun,  // the kernel had no room and let packets pass
    Failed,   // errno says why
  };
  Read read(const std::function<void(const QueuedPacket&)>& handler);

  // Has a packet go once more through the rules that queued it, from the first of their table's chain on: what another
  // program's rules there say is about it too. The mark, which replaces the whole of the packet's, must tell our rules
  // not to queue it again.
  void answer(uint32_t id, uint32_t mark);

  // Has a packet go on behind all rules of that chain. With another mark than it has, its route is chosen anew.
  void pass(uint32_t id, uint32_t mark);

 private:
  // 0, or an error number.
  int configure(const std::function<void(nlmsghdr*)>& put);
  void decide(uint32_t id, uint32_t verdict, uint32_t mark);

  const uint16_t number_;
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket_{nullptr, nullptr};
  std::vector<char> buffer_;
  bool taken_ = false;
};

}  // namespace orvane

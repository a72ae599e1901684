#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/base/SocketAddress.h"

struct mnl_socket;
struct nlmsghdr;

namespace orvane {

// A packet that the kernel holds until repeat(), accept() or drop() is called with its id.
struct QueuedPacket {
  uint32_t id;
  uint32_t mark;                   // the packet's whole mark, with the bits of other programs
  bool isInbound;                  // whether the packet comes from chain INPUT; else it comes from OUTPUT
  uint32_t interface;              // index of the interface by which the packet came or will leave; 0 if unknown
  uid_t user;                      // the owner of the packet's socket; kNoUser if the kernel reports none
  std::span<const uint8_t> bytes;  // at most 65531 bytes from the IP header on; valid during the handler's call
  size_t length;                   // of the whole packet, which may be longer than `bytes`
};

// A packet queue (nfnetlink_queue) in the network namespace of the thread that calls open(). When the queue is full,
// the kernel drops packets. If the kernel passed these packets instead, any user could fill the queue to get past the
// filter. When the queue's netlink socket closes, the kernel drops the packets in the queue and passes later ones. A
// large segment that the network card will split (GSO) counts as one packet. Not thread-safe.
class PacketQueue {
 public:
  explicit PacketQueue(uint16_t number) : number_(number) {}

  // Opens the queue. Needs CAP_NET_ADMIN in the namespace. Fails if another socket has the queue for three seconds.
  // Returns an error on failure.
  std::optional<std::string> open();

  // Whether open() failed because another process has the queue.
  bool isTaken() const { return taken_; }

  // Binds the queue to the object's netlink socket again, after the watchdog has released the queue.
  void rebind();

  // The netlink socket. Non-blocking; readable when there is a message for read().
  int descriptor() const;

  enum class Read {
    Packet,   // the handler was called
    Other,    // another message, such as the kernel's error for a verdict that came too late
    Nothing,  // no message is there
    Overrun,  // the socket's buffer was full, so the kernel dropped packets
    Failed,   // errno has the reason
  };
  Read read(const std::function<void(const QueuedPacket&)>& handler);

  // The watchdog sends numbered messages on the netlink socket, with NLM_F_ACK, so the kernel answers each of them. An
  // answer comes after all packets that were queued before its message was sent. Returns the number of the last message
  // whose answer read() has received.
  uint32_t acknowledged() const { return acknowledged_; }

  // Replaces a packet's whole mark with `mark`, and sends the packet through its chain again, from the first rule on,
  // so that the rules of other programs in that chain see it too (NF_REPEAT). The mark must keep our rules from
  // queueing the packet again.
  void repeat(uint32_t id, uint32_t mark);

  // Replaces a packet's whole mark with `mark`, and sends the packet on, past the rest of its chain (NF_ACCEPT). If the
  // mark changes, the kernel routes the packet again.
  void accept(uint32_t id, uint32_t mark);

  void drop(uint32_t id);

 private:
  // Returns 0 or an errno.
  int configure(const std::function<void(nlmsghdr*)>& put);
  bool handle(int left, const std::function<void(const QueuedPacket&)>& handler);
  void decide(uint32_t id, uint32_t verdict, uint32_t mark);

  const uint16_t number_;
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket_{nullptr, nullptr};
  std::vector<char> buffer_;
  uint32_t acknowledged_ = 0;
  bool taken_ = false;
};

}  // namespace orvane

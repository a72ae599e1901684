#pragma once

#include <cstdint>
#include <memory>

#include "platform/linux/SocketAddress.h"

struct mnl_socket;

namespace orvane {

// Sets bits of the marks of connections that the kernel tracks, in the network namespace of the thread that made the
// object (nfnetlink, its conntrack subsystem). Not thread-safe.
class ConnectionMarks {
 public:
  ConnectionMarks();

  // Sets the bits of `mask` to those of `mark`. False when the kernel has no such connection yet, as for one whose
  // first packet has not left, or refuses.
  bool set(const SocketPair& pair, uint32_t mark, uint32_t mask);

 private:
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket_;
};

}  // namespace orvane

#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/base/SocketAddress.h"

struct mnl_socket;

namespace orvane {

// Changes and adds connections in the kernel's connection tracking (nf_conntrack), in the network namespace of the
// thread that calls open(). Not thread-safe.
class ConnectionTracking {
 public:
  // Needs CAP_NET_ADMIN. Returns an error if the kernel cannot change marks.
  std::optional<std::string> open();

  // Changes the mark of the connection between `pair.local` and `pair.remote`, whichever side opened it: the bits of
  // `mask` get their values from `mark`. If the kernel does not track this connection and `lifetime` is given, adds the
  // connection with the mark `mark`. The kernel then removes the connection when it has seen none of the connection's
  // packets for `lifetime`. Returns 0; ENOENT if the kernel does not track the connection and no lifetime is given; or
  // another errno.
  int setMark(const SocketPair& pair, uint32_t mark, uint32_t mask,
              std::optional<std::chrono::seconds> lifetime = std::nullopt);

 private:
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> socket_{nullptr, nullptr};
  uint32_t sequence_ = 0;
};

}  // namespace orvane

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/sockets/SocketOwner.h"
#include "platform/linux/sockets/SocketRecords.h"

namespace orvane {

// Makes the kernel record which process connects a socket or sends a datagram with an explicit destination (sendto(2)),
// and when such a socket is closed, for the sockets of one network namespace. The records come from BPF programs that
// are attached to the topmost visible control group (cgroup version 2). The kernel removes the programs when their last
// descriptor is closed, so it removes them even if the process is killed. Not thread-safe.
class SocketOpeners {
 public:
  SocketOpeners();
  ~SocketOpeners();
  SocketOpeners(const SocketOpeners&) = delete;
  SocketOpeners& operator=(const SocketOpeners&) = delete;

  // Starts recording in the network namespace of the calling thread. Returns the reason on failure.
  std::optional<std::string> start();

  // The process that last connected the socket or sent such a datagram with it. Nothing if no process did so after
  // start(), or if newer records have replaced the record. `protocol` is that of the socket.
  std::optional<SocketOpener> opener(uint8_t protocol, uint64_t cookie) const;

  // The TCP socket that was last connected from the pair's local endpoint to its remote endpoint, and its opener. The
  // socket may be closed already. Nothing for link-local addresses, because a record has no interface.
  std::optional<StreamSocket> stream(const SocketPair& pair) const;

  // The socket that sent a datagram with an explicit destination from the pair's local port to the pair's remote
  // endpoint within the last five seconds. The inode in the result is always 0, because the records contain no inodes.
  std::optional<SocketFacts> sender(const SocketPair& pair) const;

 private:
  struct Programs;
  std::unique_ptr<Programs> programs_;  // null before start()
};

}  // namespace orvane

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/sockets/SocketOwner.h"
#include "platform/linux/sockets/SocketRecords.h"

namespace orvane {

// Has the kernel record which process connects a socket or sends a datagram, for the sockets of one network namespace.
// The records come from BPF programs on the topmost visible control group (cgroup version 2). The kernel removes the
// programs with their last descriptor, so nothing stays behind, however the process ends. Not thread-safe.
class SocketOpeners {
 public:
  SocketOpeners();
  ~SocketOpeners();
  SocketOpeners(const SocketOpeners&) = delete;
  SocketOpeners& operator=(const SocketOpeners&) = delete;

  // Starts recording in the network namespace of the calling thread. Returns the reason on failure.
  std::optional<std::string> start();

  // The process that last used the socket. Nothing if the socket was not used since start(), or if newer records have
  // replaced its record.
  std::optional<SocketOpener> opener(uint64_t cookie) const;

  // The socket that sent a datagram to the pair's remote end within the last seconds, with an explicit destination. It
  // may be closed already; its inode is 0.
  std::optional<SocketFacts> sender(const SocketPair& pair) const;

 private:
  struct Programs;
  std::unique_ptr<Programs> programs_;  // null before start()
};

}  // namespace orvane

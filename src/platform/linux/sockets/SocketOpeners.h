#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/sockets/SocketOwner.h"
#include "platform/linux/sockets/SocketRecords.h"

namespace orvane {

// The kernel's record of who connects sockets and sends datagrams: BPF programs on the topmost control group (cgroup
// version 2) that is to be seen, for the sockets of one network namespace. The kernel takes them away with the last
// descriptor, so nothing stays behind, however the process ends. Not thread-safe.
class SocketOpeners {
 public:
  SocketOpeners();
  ~SocketOpeners();
  SocketOpeners(const SocketOpeners&) = delete;
  SocketOpeners& operator=(const SocketOpeners&) = delete;

  // Begins the record, for the network namespace of the calling thread. Returns why that cannot be.
  std::optional<std::string> start();

  // Nothing for a socket that has not been used since start(), or so long ago that others have taken its place.
  std::optional<SocketOpener> opener(uint64_t cookie) const;

  // The socket that has just sent a datagram this way, its destination given with it. It may be closed by now; its
  // inode is not told.
  std::optional<SocketFacts> sender(const SocketPair& pair) const;

 private:
  struct Programs;
  std::unique_ptr<Programs> programs_;  // null before start()
};

}  // namespace orvane

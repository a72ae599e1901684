#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "platform/linux/process/ProcessInformation.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// Searches the process table for the process that holds a socket. Not thread-safe.
//
// A user can have a million descriptors, which take seconds to read. While a search runs, all users' packets wait. So
// the time of a search is limited, and so is the share of time for the sockets of each user. The processes of the
// socket's user are searched first: other users' processes cannot use up the time that finds a browser.
class SocketHolders {
 public:
  // In processor time. A search may exceed them by a fraction of a millisecond.
  struct Limits {
    std::chrono::nanoseconds processes = std::chrono::milliseconds(2);    // to list new processes; the same to relist
    std::chrono::nanoseconds descriptors = std::chrono::milliseconds(4);  // to read their descriptors
    // A user's sockets may take this time at once, and then a fifth of the time that passes.
    std::chrono::nanoseconds burst = std::chrono::milliseconds(50);
  };
  SocketHolders();
  explicit SocketHolders(const Limits& limits);
  ~SocketHolders();

  // Chooses among several holders as SocketOwners does. Nothing if no process holds the socket, if this process may not
  // read the holder's descriptors, or if a limit was reached. A socket without a result is not searched for again for
  // two seconds.
  std::optional<ProcessInformation> find(const SocketFacts& socket);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

// The token's bytes as data; nil if there is no token.
Value token_value(const std::optional<audit_token_t>& token);

}  // namespace orvane

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
// two times are limited: that of each search, and that of all searches for one user's sockets. The processes of the
// socket's user are searched first, so that other users' processes cannot use up the time of the search.
class SocketHolders {
 public:
  // The limits are processor time. A search may exceed them by a fraction of a millisecond.
  struct Limits {
    // Limit on listing the processes that were started since the last search. Reading the whole process table again,
    // part by part, has a second limit of the same size (UserProcesses.h).
    std::chrono::nanoseconds processes = std::chrono::milliseconds(2);
    // Limit on reading the descriptors of processes.
    std::chrono::nanoseconds descriptors = std::chrono::milliseconds(4);
    // Limit on all searches for one user's sockets together. Used time is given back at a rate of 200 ms per second.
    std::chrono::nanoseconds burst = std::chrono::milliseconds(50);
  };
  SocketHolders();
  explicit SocketHolders(const Limits& limits);
  ~SocketHolders();

  // Returns the process that holds the socket; if several processes hold it, SocketOwner.h says which one. Returns
  // nothing if no process holds the socket, if the calling process may not read the holder's descriptors, or if a limit
  // was reached. After a search without a result, calls for the same socket return nothing for two seconds.
  std::optional<ProcessInformation> find(const SocketFacts& socket);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

// The token's bytes as data; nil if there is no token.
Value token_value(const std::optional<audit_token_t>& token);

}  // namespace orvane

#pragma once

#include <optional>

#include "platform/Value.h"
#include "platform/linux/base/SocketAddress.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// Finds the socket of a flow and the socket's owner, and aborts sockets. The functions have the same contracts as in
// SocketOwners (SocketOwner.h) and SocketAborter.
class FlowOwners {
 public:
  virtual ~FlowOwners() = default;
  virtual std::optional<SocketFacts> find(const SocketPair& pair) = 0;
  virtual std::optional<SocketFacts> sender(const SocketPair& pair, uid_t user) = 0;
  virtual bool isOpen(const SocketPair& pair, uint64_t cookie) = 0;
  virtual Value ownerOf(const SocketPair& pair, const SocketFacts& socket) = 0;
  virtual void abort(const SocketPair& pair, uint64_t cookie) = 0;
};

}  // namespace orvane

#pragma once

#include <optional>

#include "platform/linux/process/ProcessInformation.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// Finds the process that holds a socket in the process table. If several hold it, the choice is that of SocketOwners.
// Nothing if no process holds it, or none whose descriptors this process may read. Thread-safe.
std::optional<ProcessInformation> find_socket_holder(const SocketFacts& socket);

// The token's bytes as data; nil if there is no token.
Value token_value(const std::optional<audit_token_t>& token);

}  // namespace orvane

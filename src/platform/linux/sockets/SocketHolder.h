#pragma once

#include <optional>

#include "platform/linux/process/ProcessInformation.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// Searches the process table for the process that holds a socket. Chooses among several as SocketOwners does. Nothing
// if no process holds it, or none whose descriptors this process may read. Thread-safe.
std::optional<ProcessInformation> find_socket_holder(const SocketFacts& socket);

// The token's bytes as data; nil if there is no token.
Value token_value(const std::optional<audit_token_t>& token);

}  // namespace orvane

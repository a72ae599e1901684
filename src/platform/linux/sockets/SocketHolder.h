#pragma once

#include <optional>

#include "platform/linux/process/ProcessInformation.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// The process that holds the socket, by the process table; of several, as SocketOwners says. Nothing when none does
// that is ours to look into. Thread-safe.
std::optional<ProcessInformation> find_socket_holder(const SocketFacts& socket);

// A token as data; nil for none.
Value token_value(const std::optional<audit_token_t>& token);

}  // namespace orvane

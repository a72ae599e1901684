#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>

#include "platform/Value.h"

namespace orvane {

// The audit token (data of 32 bytes) of the process that holds the TCP socket whose own address is `local` and whose
// peer is `remote`. Searches the process table only. Nil if no owner is found. Thread-safe.
//
// A test of the proxy links other definitions of these functions.
Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr* remote);

// The user who created that socket. Nothing if the socket is not found, or closed. Thread-safe.
std::optional<uid_t> user_of_socket(const sockaddr* local, const sockaddr* remote);

}  // namespace orvane

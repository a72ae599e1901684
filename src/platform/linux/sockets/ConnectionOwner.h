#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <optional>

#include "platform/Value.h"

namespace orvane {

// The audit token (data of 32 bytes) of the process that holds the TCP socket whose own address is `local` and whose
// peer is `remote`. The process is looked up in the process table, never in the kernel's record of openers
// (SocketOwner.h). Nil if no such process is found. Thread-safe.
//
// The test of the proxy links other definitions of these functions.
Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr* remote);

// The user who created the TCP socket with these two addresses. Nothing if the socket is not found, or if it is closed.
// Thread-safe.
std::optional<uid_t> user_of_socket(const sockaddr* local, const sockaddr* remote);

}  // namespace orvane

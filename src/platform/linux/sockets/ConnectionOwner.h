#pragma once

#include <sys/socket.h>

#include "platform/Value.h"

namespace orvane {

// The audit token (data of 32 bytes) of the process that holds a TCP connection's socket: the socket whose own address
// is `local` and whose peer is `remote`. Uses the process table alone. Nil when no owner is found. Thread-safe.
//
// In a file of its own, so that a test can link another answer.
Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr* remote);

}  // namespace orvane

#pragma once

#include <sys/socket.h>

#include "platform/Value.h"

namespace orvane {

// The audit token (data of 32 bytes) of the process that owns a TCP socket of this network namespace: the socket whose
// own address is `local` and whose peer is `remote`. Both are IPv4 or both IPv6; IPv4 addresses mapped into IPv6
// (RFC 4291, section 2.5.5.2) count as IPv4. Nil when no such socket is connected, when no process holds it any more,
// and when the processes that hold it are not ours to look into: one's own processes need no privilege, those of other
// users CAP_SYS_PTRACE (proc(5), /proc/pid/fd).
//
// When several processes hold the socket, the answer is the ancestor of the others: children inherit sockets, so the
// process that opened it stands above them. Holders that are not each other's ancestors are equal, and any may be the
// answer.
//
// Thread-safe.
Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr* remote);

}  // namespace orvane

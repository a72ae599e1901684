#pragma once

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;  // nothing: wait forever

Deadline deadline_after(std::chrono::milliseconds time);

enum class Wait { Ready, TimedOut, Stopped };

// Waits until one of the entries has an event or `stop`, an eventfd(2), is readable. Entries with a negative descriptor
// are ignored.
Wait wait_for(std::span<pollfd> entries, int stop, Deadline deadline);

// Sends all bytes on a non-blocking socket. False when the connection fails, at the deadline, and when `stop` is
// readable.
bool send_all(int socket, std::string_view bytes, int stop, Deadline deadline);

// Closes a connection with a reset: unsent data is discarded and the peer gets an error.
void reset_connection(Descriptor socket);

// Closes a connection after its peer had time to read everything. Closing a socket with unread input would send a
// reset, so input is discarded until the peer closes, for two seconds at most.
void close_gently(Descriptor socket, int stop);

// The addresses of both ends of a connected socket. Nothing when it is not connected.
struct SocketEnds {
  sockaddr_storage local{};
  sockaddr_storage peer{};
};
std::optional<SocketEnds> socket_ends(int socket);

// A new connection, or why it failed.
struct Connected {
  Descriptor socket;   // non-blocking
  std::string reason;  // without a socket: one line
};

// Connects over TCP to the first of the addresses that answers. Attempts start in the order of the addresses: the next
// one when the last attempt has failed, or after 250 ms (RFC 8305, section 5). Gives up after 30 s.
Connected connect_to_any(const addrinfo* addresses, int stop);

// Connects to a host name or a literal address. Looking the name up takes as long as the system resolver allows.
Connected connect_to_host(const std::string& host, uint16_t port, int stop);

}  // namespace orvane

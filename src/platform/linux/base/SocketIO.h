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

using Deadline = std::optional<std::chrono::steady_clock::time_point>;  // nothing: no end

Deadline deadline_after(std::chrono::milliseconds time);

enum class Wait { Ready, TimedOut, Stopped };

// Waits until one of the entries has an event, or `stop` (an eventfd(2)) is raised. An entry with a negative descriptor
// is left out.
Wait wait_for(std::span<pollfd> entries, int stop, Deadline deadline);

// Sends everything on a non-blocking socket. False when the peer is gone, time is up or `stop` is raised.
bool send_all(int socket, std::string_view bytes, int stop, Deadline deadline);

// Ends a connection so that its peer reads an error, whatever is still on the way.
void reset_connection(Descriptor socket);

// Ends a connection so that its peer reads everything that was sent: unread input would turn the end into a reset, so
// it is read and thrown away for a moment.
void close_gently(Descriptor socket, int stop);

// What a socket's two ends are called.
struct SocketEnds {
  sockaddr_storage local{};
  sockaddr_storage peer{};
};
std::optional<SocketEnds> socket_ends(int socket);

// The upstream connection of a flow, or why there is none.
struct Connected {
  Descriptor socket;   // non-blocking
  std::string reason;  // when there is no socket: one line
};

// Connects over TCP to one of the addresses. They are tried in their order, the next one as soon as the last failed or
// has been silent for 250 ms (RFC 8305, section 5); the first that answers is taken. Time is up after 30 s.
Connected connect_to_any(const addrinfo* addresses, int stop);

// Connects to a host, a name or a literal address. The resolver has time limits of its own.
Connected connect_to_host(const std::string& host, uint16_t port, int stop);

}  // namespace orvane

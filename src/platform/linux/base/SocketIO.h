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

#include "platform/files/Descriptor.h"

namespace orvane {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;  // no value: wait forever

Deadline deadline_after(std::chrono::milliseconds time);

enum class Wait { Ready, TimedOut, Stopped };

// Waits until one of the entries has an event, `stop` (an eventfd(2)) is readable, or the deadline has passed. Entries
// with a negative descriptor are ignored.
Wait wait_for(std::span<pollfd> entries, int stop, Deadline deadline);

// Sends all bytes on a non-blocking socket. False if the connection fails, the deadline passes, or `stop` becomes
// readable before all bytes are sent.
bool send_all(int socket, std::string_view bytes, int stop, Deadline deadline);

// Closes a connection with a reset: unsent data is discarded and the peer gets an error.
void reset_connection(Descriptor socket);

// Closes a connection so that the peer can read everything that was sent. Closing a socket with unread input would send
// a reset, and a reset may discard bytes that the peer has not read yet. So this function ends the output, and then
// reads and discards input. It stops when the peer closes the connection, when `stop` is readable, after two seconds,
// or after 16 MiB.
void close_gently(Descriptor socket, int stop);

// The addresses of both endpoints of a connected socket. Nothing when the socket is not connected.
struct SocketEnds {
  sockaddr_storage local{};
  sockaddr_storage peer{};
};
std::optional<SocketEnds> socket_ends(int socket);

// A new connection, or why it failed.
struct Connected {
  Descriptor socket;   // non-blocking
  std::string reason;  // why there is no socket: one line
};

// Connects over TCP to one of the addresses: tries several at the same time and keeps the connection that is
// established first. Attempts start in the order of the addresses. An attempt starts when an earlier attempt fails, or
// 250 ms after the previous start (RFC 8305, section 5), whichever happens first. Gives up after 30 s.
Connected connect_to_any(const addrinfo* addresses, int stop);

// Resolves a host name or a literal address, then connects as connect_to_any() does. Neither `stop` nor a deadline ends
// the look-up of the name, which takes as long as the system resolver allows.
Connected connect_to_host(const std::string& host, uint16_t port, int stop);

}  // namespace orvane

#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace orvane {

// An endpoint of a connection: an IPv4 or IPv6 address and a port. An IPv4-mapped IPv6 address (RFC 4291, section
// 2.5.5.2) is stored as IPv4, so that the same endpoint compares equal whether an IPv4 or an IPv6 socket uses it.
struct SocketAddress {
  sa_family_t family = AF_UNSPEC;     // AF_INET or AF_INET6
  uint16_t port = 0;                  // host byte order
  uint32_t scope = 0;                 // interface index of a link-local address, else 0
  std::array<uint8_t, 16> address{};  // network byte order; IPv4 uses the first four bytes, and the other bytes are 0

  // Nothing for a family other than AF_INET and AF_INET6, and when `length` is too short for the family.
  static std::optional<SocketAddress> from(const sockaddr* address, socklen_t length);
  static SocketAddress v4(const uint8_t* address, uint16_t port);
  static SocketAddress v6(const uint8_t* address, uint16_t port, uint32_t scope = 0);

  // The address as text, without brackets or scope.
  std::string host() const;

  friend auto operator<=>(const SocketAddress&, const SocketAddress&) = default;  // NOLINT(modernize-use-nullptr)
};

// The local and the remote endpoint of a connection or a datagram.
struct SocketPair {
  uint8_t protocol = 0;  // IPPROTO_TCP or IPPROTO_UDP
  SocketAddress local, remote;

  friend auto operator<=>(const SocketPair&, const SocketPair&) = default;  // NOLINT(modernize-use-nullptr)
};

// The user of a socket whose user is not known. No user can have this id.
constexpr auto kNoUser = static_cast<uid_t>(-1);

// A keyed hash (KeyedHash.h), because any user can choose the addresses and ports of many sockets.
struct SocketPairHash {
  size_t operator()(const SocketPair& pair) const;
};

}  // namespace orvane

#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace orvane {

// One end of a connection: an IPv4 or IPv6 address and a port. IPv4 addresses mapped into IPv6 (RFC 4291, section
// 2.5.5.2) are held as IPv4, so that equal ends compare equal whichever family their socket is of.
struct SocketAddress {
  sa_family_t family = AF_UNSPEC;     // AF_INET or AF_INET6
  uint16_t port = 0;                  // host byte order
  uint32_t scope = 0;                 // the interface that a link-local address belongs to, else 0
  std::array<uint8_t, 16> address{};  // network byte order; the first four for IPv4, the others are 0

  // Nothing for another family, or a length that does not hold it.
  static std::optional<SocketAddress> from(const sockaddr* address, socklen_t length);
  static SocketAddress v4(const uint8_t* address, uint16_t port);
  static SocketAddress v6(const uint8_t* address, uint16_t port, uint32_t scope = 0);

  // The literal address, without brackets and scope.
  std::string host() const;

  friend bool operator==(const SocketAddress&, const SocketAddress&) = default;
};

// A connection, or a datagram's way, as this machine sees it.
struct SocketPair {
  uint8_t protocol = 0;  // IPPROTO_TCP or IPPROTO_UDP
  SocketAddress local, remote;

  friend bool operator==(const SocketPair&, const SocketPair&) = default;
};

struct SocketPairHash {
  size_t operator()(const SocketPair& pair) const;
};

}  // namespace orvane

#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/linux/base/SocketAddress.h"

namespace orvane {

// What an outbound packet says of itself: an IPv4 (RFC 791) or IPv6 (RFC 8200) packet with a TCP (RFC 9293) segment or
// a UDP (RFC 768) datagram in it.
struct Packet {
  SocketPair ends;                             // local is the source
  bool syn = false, fin = false, rst = false;  // TCP alone
  uint32_t sequence = 0;                       // TCP: the number of the payload's first byte
  std::span<const uint8_t> payload;            // of the packet's own bytes
};

// Reads a packet from its IP header on. Nothing for other protocols, for a fragment other than the first, and when the
// headers are malformed or not whole. Of a payload that was cut short (the packet says it is longer) what is there is
// given. `outputInterface` becomes the scope of link-local addresses.
// A packet with a routing header has the next stop on its way as `remote`.
//
// The lengths in the IP headers may be 0 for a segment that is larger than they can say (IPv6 jumbo and large
// segmentation offload): then the bytes given are the packet.
std::optional<Packet> parse_packet(std::span<const uint8_t> bytes, uint32_t outputInterface = 0);

}  // namespace orvane

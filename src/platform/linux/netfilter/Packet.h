#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/linux/base/SocketAddress.h"

namespace orvane {

// An outbound IPv4 (RFC 791) or IPv6 (RFC 8200) packet with a TCP (RFC 9293) segment or a UDP (RFC 768) datagram.
struct Packet {
  SocketPair ends;                             // local is the source
  bool syn = false, fin = false, rst = false;  // TCP only
  uint32_t sequence = 0;                       // TCP only: the number of the payload's first byte
  std::span<const uint8_t> payload;            // a part of the bytes given to parse_packet()
  size_t missing = 0;                          // bytes of the payload behind that
};

// Parses a packet from its IP header on. Returns nothing for other protocols, for fragments after the first, and for
// malformed or incomplete headers. An incomplete payload is returned as far as it is there. `outputInterface` becomes
// the scope of link-local addresses. With a routing header, `remote` is the next stop.
//
// `length` is that of the whole packet when it is longer than `bytes`. A length of 0 in an IP header means that the
// packet is too large for the field (IPv6 jumbograms, segmentation offload): then `length` counts.
std::optional<Packet> parse_packet(std::span<const uint8_t> bytes, uint32_t outputInterface = 0, size_t length = 0);

}  // namespace orvane

#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/linux/base/SocketAddress.h"

namespace orvane {

// An IPv4 (RFC 791) or IPv6 (RFC 8200) packet with a TCP (RFC 9293) segment or a UDP (RFC 768) datagram.
struct Packet {
  SocketPair ends;                                          // `local` is the source, even if the packet is inbound
  bool syn = false, ack = false, fin = false, rst = false;  // TCP only
  uint32_t sequence = 0;                                    // TCP only: the number of the payload's first byte
  std::span<const uint8_t> payload;                         // a part of the bytes given to parse_packet()
  size_t missing = 0;    // how many bytes of the packet's payload are missing at the end of `payload`
  uid_t user = kNoUser;  // the owner of the packet's socket; parse_packet() does not set it
};

// Parses a packet; `bytes` begins with the IP header. Returns nothing for other protocols, for fragments after the
// first, and for malformed or incomplete headers. If the payload is incomplete, returns the part that `bytes` has.
// `outputInterface` becomes the scope of link-local addresses. If an IPv6 packet has a routing header, `remote` is the
// address in the IP header, to which the packet goes next, and not the final destination.
//
// `length` is the length of the whole packet if `bytes` has only its beginning. If the packet is too large for the
// length field of its IP header (IPv6 jumbograms, segmentation offload), that field is 0 and `length` is used instead.
std::optional<Packet> parse_packet(std::span<const uint8_t> bytes, uint32_t outputInterface = 0, size_t length = 0);

}  // namespace orvane

#include "platform/linux/netfilter/Packet.h"

#include <netinet/in.h>

#include <algorithm>

namespace orvane {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kIPv4HeaderLength = 20;  // RFC 791, section 3.1, without options
constexpr size_t kIPv6HeaderLength = 40;  // RFC 8200, section 3
constexpr size_t kExtensionMinimum = 8;   // RFC 8200, section 4
constexpr size_t kTCPHeaderLength = 20;   // RFC 9293, section 3.1, without options
constexpr size_t kUDPHeaderLength = 8;    // RFC 768
constexpr uint8_t kFin = 1, kSyn = 2, kRst = 4, kAck = 16;

uint16_t read_u16(Bytes bytes, size_t at) { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); }

uint32_t read_u32(Bytes bytes, size_t at) {
  return static_cast<uint32_t>(read_u16(bytes, at)) << 16 | read_u16(bytes, at + 2);
}

// Sets the addresses and the protocol of `ends`, and the number of bytes that are missing at the end of the packet.
// Returns the bytes after the IP header.
std::optional<Bytes> read_ipv4(Bytes bytes, size_t length, SocketPair& ends, size_t& missing) {
  if (bytes.size() < kIPv4HeaderLength) return std::nullopt;
  size_t header = size_t{bytes[0] & 0x0fU} * 4;
  size_t total = read_u16(bytes, 2);
  if (total == 0) total = length;
  missing = total - std::min(total, bytes.size());
  bytes = bytes.first(std::min(total, bytes.size()));
  bool laterFragment = (read_u16(bytes, 6) & 0x1fff) != 0;
  if (header < kIPv4HeaderLength || header > bytes.size() || laterFragment) return std::nullopt;
  ends.protocol = bytes[9];
  ends.local = SocketAddress::v4(&bytes[12], 0);
  ends.remote = SocketAddress::v4(&bytes[16], 0);
  return bytes.subspan(header);
}

// Skips extension headers (RFC 8200, section 4). Sets the protocol and returns the segment or datagram.
std::optional<Bytes> skip_extensions(uint8_t next, Bytes rest, uint8_t& protocol) {
  while (next != IPPROTO_TCP && next != IPPROTO_UDP) {
    if (rest.size() < kExtensionMinimum) return std::nullopt;
    size_t length = kExtensionMinimum;
    switch (next) {
      case IPPROTO_HOPOPTS:
      case IPPROTO_ROUTING:
      case IPPROTO_DSTOPTS:
      case IPPROTO_MH:
        length = (size_t{rest[1]} + 1) * 8;
        break;
      case IPPROTO_AH:  // in units of 4 bytes (RFC 4302, section 2.2)
        length = (size_t{rest[1]} + 2) * 4;
        break;
      case IPPROTO_FRAGMENT:
        if ((read_u16(rest, 2) & 0xfff8) != 0) return std::nullopt;
        break;
      default:
        return std::nullopt;
    }
    if (length > rest.size()) return std::nullopt;
    next = rest[0];
    rest = rest.subspan(length);
  }
  protocol = next;
  return rest;
}

// Does the same as read_ipv4(), and skips extension headers.
std::optional<Bytes> read_ipv6(Bytes bytes, uint32_t outputInterface, size_t length, SocketPair& ends,
                               size_t& missing) {
  if (bytes.size() < kIPv6HeaderLength) return std::nullopt;
  size_t total = kIPv6HeaderLength + read_u16(bytes, 4);
  if (total == kIPv6HeaderLength) total = length;
  missing = total - std::min(total, bytes.size());
  bytes = bytes.first(std::min(total, bytes.size()));
  ends.local = SocketAddress::v6(&bytes[8], 0, outputInterface);
  ends.remote = SocketAddress::v6(&bytes[24], 0, outputInterface);
  return skip_extensions(bytes[6], bytes.subspan(kIPv6HeaderLength), ends.protocol);
}

bool read_tcp(Bytes segment, Packet& packet) {
  if (segment.size() < kTCPHeaderLength) return false;
  size_t header = size_t{segment[12]} / 16 * 4;
  if (header < kTCPHeaderLength || header > segment.size()) return false;
  packet.syn = (segment[13] & kSyn) != 0;
  packet.ack = (segment[13] & kAck) != 0;
  packet.fin = (segment[13] & kFin) != 0;
  packet.rst = (segment[13] & kRst) != 0;
  packet.sequence = read_u32(segment, 4) + (packet.syn ? 1 : 0);  // a SYN has its own number (RFC 9293, section 3.4)
  packet.payload = segment.subspan(header);
  return true;
}

bool read_udp(Bytes datagram, Packet& packet) {
  if (datagram.size() < kUDPHeaderLength) return false;
  size_t length = read_u16(datagram, 4);
  if (length == 0) length = datagram.size();  // a jumbogram, RFC 2675, section 4
  if (length < kUDPHeaderLength) return false;
  packet.payload = datagram.first(std::min(length, datagram.size())).subspan(kUDPHeaderLength);
  return true;
}

}  // namespace

std::optional<Packet> parse_packet(std::span<const uint8_t> bytes, uint32_t outputInterface, size_t length) {
  if (bytes.empty()) return std::nullopt;
  length = std::max(length, bytes.size());
  Packet packet;
  std::optional<Bytes> segment;
  if (bytes[0] >> 4 == 4) segment = read_ipv4(bytes, length, packet.ends, packet.missing);
  if (bytes[0] >> 4 == 6) segment = read_ipv6(bytes, outputInterface, length, packet.ends, packet.missing);
  if (!segment) return std::nullopt;

  bool tcp = packet.ends.protocol == IPPROTO_TCP;
  if (!tcp && packet.ends.protocol != IPPROTO_UDP) return std::nullopt;
  if (!(tcp ? read_tcp(*segment, packet) : read_udp(*segment, packet))) return std::nullopt;
  packet.ends.local.port = read_u16(*segment, 0);
  packet.ends.remote.port = read_u16(*segment, 2);
  return packet;
}

}  // namespace orvane

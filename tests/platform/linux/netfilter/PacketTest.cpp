#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "platform/linux/netfilter/Packet.h"

namespace orvane {
namespace {

using namespace std::string_literals;

// Parses a copy of the bytes in an allocation of exactly their size, so that a sanitizer sees a read beyond them.
std::string read(const std::string& bytes) {
  std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  auto packet = parse_packet(exact, 7);
  if (!packet) return "none";
  std::ostringstream text;
  text << +packet->ends.protocol;
  for (auto& end : {packet->ends.local, packet->ends.remote}) {
    text << " " << end.host() << "%" << end.scope << " " << end.port;
  }
  text << (packet->syn ? " S" : packet->fin ? " F" : packet->rst ? " R" : " ") << packet->sequence << " ";
  return text.str() + std::string(packet->payload.begin(), packet->payload.end());
}

std::string tcp(char flags, size_t words = 5) {
  return "\x9c\x40\x01\xbb\1\2\3\4\0\0\0\0"s + static_cast<char>(words << 4) + flags + std::string(6, 0);
}

std::string udp(char length) { return "\x9c\x40\0\x35\0"s + length + "\0\0"s; }

std::string v4(char protocol, char total, char fragment = 0, char words = 5) {
  return static_cast<char>(0x40 + words) + "\0\0"s + total + "\0\1"s + fragment + "\0\x40"s + protocol +
         "\0\0\x0a\0\0\1\x0a\0\0\2"s;
}

std::string v6(char next, char length) {
  std::string zeros(13, 0);
  return "\x60"s + zeros.substr(9) + length + next + "\x40\xfe\x80" + zeros + "\1\x20\1\x0d\xb8" + zeros.substr(2) +
         "\2";
}

TEST(Packet, ReadsEachKindOfHeader) {
  const std::string four = "10.0.0.1%0 40000 10.0.0.2%0 ", six = "fe80::1%7 40000 2001:db8::2%0 ", eight(8, 1);
  const std::string extensions = "\x3c\0xxxxxx\x2b\1xxxxxx"s + eight + "\x2c\2xxxxxx" + eight + eight +
                                 "\x33\0\0\1xxxx\x87\4xxxxxx"s + eight + eight + "\6\0xxxxxx"s;
  const std::tuple<const char*, std::string, std::string, std::string> kCases[] = {
      {"TCP, bytes after the packet", v4(6, 43) + tcp(0x18), "abcjunk", "6 " + four + "443 16909060 abc"},
      {"a length of 0", v4(6, 0) + tcp(0x10), "offloaded", "6 " + four + "443 16909060 offloaded"},
      {"FIN, a cut payload", v4(6, 99) + tcp(0x11), "cut", "6 " + four + "443 F16909060 cut"},
      {"SYN, options in both headers", v4(6, 56, 0, 6) + "\x94\4\0\0"s + tcp(2, 7) + eight, "data",
       "6 " + four + "443 S16909061 data"},
      {"UDP, the first fragment", v4(17, 30, 0x20) + udp(20), "first part", "17 " + four + "53 0 fi"},
      {"UDP, bytes after the datagram", v4(17, 40) + udp(10), "more than it says", "17 " + four + "53 0 mo"},
      {"IPv6, RST", v6(6, 20) + tcp(4), "junk", "6 " + six + "443 R16909060 "},
      {"IPv6, a jumbogram", v6(0, 0) + "\x11\0\xc2\4\0\1\0\0"s + udp(0), "jumbo", "17 " + six + "53 0 jumbo"},
      {"IPv6, a header beyond the packet's length", v6(0, 107) + extensions + tcp(0x10), "end", "none"},
      {"IPv6, each extension header", v6(0, 111) + extensions + tcp(0x10), "end and junk",
       "6 " + six + "443 16909060 end"},
  };
  for (const auto& [name, headers, rest, expected] : kCases) {
    EXPECT_EQ(read(headers + rest), expected) << name;
    for (size_t i = 0; i < headers.size(); ++i) {
      EXPECT_EQ(read(headers.substr(0, i)), "none") << name << ", cut to " << i;
    }
  }
}

TEST(Packet, RejectsOtherAndMalformedPackets) {
  const std::pair<const char*, std::string> kCases[] = {
      {"a later fragment", v4(6, 0, 1) + tcp(0x10)},
      {"IPv6, a later fragment", v6(44, 28) + "\6\0\0\x8\0\0\0\1"s + tcp(0x10)},
      {"ICMP", v4(1, 0) + tcp(0x10)},
      {"IPv6, no next header", v6(59, 8) + std::string(8, 1)},
      {"too short an IP header", v4(17, 0, 0, 4) + udp(0)},
      {"too short a packet", v4(6, 19) + tcp(0x10)},
      {"too short a TCP header", v4(6, 0) + tcp(0x10, 4)},
      {"a TCP header beyond the end", v4(6, 0) + tcp(0x10, 6)},
      {"too short a datagram", v4(17, 0) + udp(7) + std::string(8, 1)},
  };
  for (const auto& [name, bytes] : kCases) EXPECT_EQ(read(bytes), "none") << name;
}

TEST(SocketAddress, EqualsItsMappedForm) {
  const auto* mapped = reinterpret_cast<const uint8_t*>("\0\0\0\0\0\0\0\0\0\0\xff\xff\x0a\0\0\2");
  EXPECT_EQ(SocketAddress::v6(mapped, 443, 3), SocketAddress::v4(mapped + 12, 443));
}

}  // namespace
}  // namespace orvane

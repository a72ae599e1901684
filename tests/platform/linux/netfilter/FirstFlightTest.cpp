#include <gtest/gtest.h>

#include "platform/linux/netfilter/FirstFlight.h"

namespace orvane {
namespace {

// The bytes of the flight, with a dot at the end when it takes no more.
std::string reassemble(const std::vector<std::pair<size_t, std::string>>& segments) {
  FirstFlight flight;
  bool more = true;
  for (const auto& [sequence, payload] : segments) {
    std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    more = flight.add(static_cast<uint32_t>(sequence), bytes);
  }
  return std::string(flight.bytes().begin(), flight.bytes().end()) + (more ? "" : ".");
}

TEST(FirstFlight, ReassemblesSegments) {
  const std::string all(FirstFlight::kLimit, 'a'), most = all.substr(1);
  const struct {
    const char* name;
    std::vector<std::pair<size_t, std::string>> segments;
    std::string bytes;
  } kCases[] = {
      {"out of order, across 2^32", {{0xffffffff, "abc"}, {8, "jk"}, {5, "ghi"}, {2, "def"}}, "abcdefghijk"},
      {"retransmissions replace nothing", {{1, "abc"}, {1, "XYZd"}, {3, "YZe"}}, "abcde"},
      {"a segment over several gaps", {{1, "a"}, {5, "e"}, {3, "c"}, {2, "BXDXFG"}, {9, "i"}}, "aBcDeFG"},
      {"overlapping pieces after a gap", {{1, "a"}, {4, "def"}, {3, "cX"}, {5, "XX7"}, {2, "b"}}, "abcdef7"},
      {"an empty segment does not begin the flight", {{9, ""}, {5, "abc"}, {7, ""}, {7, "c"}}, "abc"},
      {"a segment before the begin ends it", {{5, "abc"}, {9, "e"}, {4, "xab"}, {8, "d"}}, "abc."},
      {"the limit ends it", {{7, all + "b"}, {7, "c"}}, all + "."},
      {"the limit ends it when a gap closes", {{7, "a"}, {9, most}, {8, "a"}}, all + "."},
      {"a segment beyond the limit ends it", {{7, most}, {7 + all.size(), "b"}}, most + "."},
  };
  for (const auto& c : kCases) EXPECT_EQ(reassemble(c.segments), c.bytes) << c.name;
}

}  // namespace
}  // namespace orvane

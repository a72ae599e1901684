#include <gtest/gtest.h>

#include <tuple>

#include "platform/linux/flow/FirstFlight.h"

namespace orvane {
namespace {

// The bytes that the flight puts in order, then a dot if the flight cannot continue.
std::string reassemble(const std::vector<std::pair<size_t, std::string>>& segments) {
  FirstFlight flight;
  bool more = true;
  std::string ordered;
  for (const auto& [sequence, payload] : segments) {
    std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    more = flight.add(static_cast<uint32_t>(sequence), bytes);
    ordered.append(flight.next().begin(), flight.next().end());
  }
  EXPECT_EQ(flight.length(), ordered.size());
  return ordered + (more ? "" : ".");
}

TEST(FirstFlight, ReassemblesSegments) {
  const std::string large(FirstFlight::kBytesLimit, 'a');
  std::vector<std::pair<size_t, std::string>> scattered{{1, "a"}};
  for (size_t piece = 0; piece <= FirstFlight::kPiecesLimit; ++piece) scattered.emplace_back(3 + 2 * piece, "x");
  const std::tuple<const char*, std::vector<std::pair<size_t, std::string>>, std::string> kCases[] = {
      {"out of order, across 2^32", {{0xffffffff, "abc"}, {8, "jk"}, {5, "ghi"}, {2, "def"}}, "abcdefghijk"},
      {"retransmissions replace nothing", {{1, "abc"}, {1, "XYZd"}, {3, "YZe"}}, "abcde"},
      {"a segment over several gaps", {{1, "a"}, {5, "e"}, {3, "c"}, {2, "BXDXFG"}, {9, "i"}}, "aBcDeFG"},
      {"overlapping pieces after a gap", {{1, "a"}, {4, "def"}, {3, "cX"}, {5, "XX7"}, {2, "b"}}, "abcdef7"},
      {"an empty segment does not begin the flight", {{9, ""}, {5, "abc"}, {7, ""}, {7, "c"}}, "abc"},
      {"a segment before the begin ends it", {{5, "abc"}, {9, "e"}, {4, "xab"}, {8, "d"}}, "abc."},
      {"any number of bytes in order", {{7, large}, {7 + large.size(), large}}, large + large},
      {"as many behind a gap", {{7, "a"}, {9, large}, {8, "a"}}, "aa" + large},
      {"too many bytes behind a gap end it", {{7, "a"}, {9, large + "a"}, {8, "a"}}, "a."},
      {"too many pieces behind a gap end it", scattered, "a."},
  };
  for (const auto& [name, segments, bytes] : kCases) EXPECT_EQ(reassemble(segments), bytes) << name;
}

}  // namespace
}  // namespace orvane

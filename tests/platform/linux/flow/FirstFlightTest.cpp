#include <gtest/gtest.h>

#include <tuple>

#include "platform/linux/flow/FirstFlight.h"

namespace orvane {
namespace {

// The bytes in order, with a bar for each segment that finds no room, then a dot if the flight cannot continue.
std::string reassemble(const std::vector<std::pair<size_t, std::string>>& segments) {
  using enum FirstFlight::Added;
  FirstFlight flight;
  FirstFlight::Added added = Yes;
  std::string ordered;
  size_t full = 0;
  for (const auto& [sequence, payload] : segments) {
    std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    added = flight.add(static_cast<uint32_t>(sequence), bytes);
    ordered.append(flight.next().begin(), flight.next().end());
    if (added != Full) continue;
    ordered += '|';
    ++full;
  }
  EXPECT_EQ(flight.length(), ordered.size() - full);
  return ordered + (added == Broken ? "." : "");
}

TEST(FirstFlight, ReassemblesSegments) {
  const std::string large(FirstFlight::kBytesLimit, 'a');
  std::vector<std::pair<size_t, std::string>> scattered{{1, "a"}}, touching = scattered;
  for (size_t piece = 0; piece <= FirstFlight::kPiecesLimit; ++piece) {
    scattered.emplace_back(3 + 2 * piece, "x");
    touching.emplace_back(3 + FirstFlight::kPiecesLimit - piece, "x");
  }
  scattered.emplace_back(2, std::string(2 * FirstFlight::kPiecesLimit, 'b'));
  touching.emplace_back(2, "b");
  std::string alternating;
  for (size_t piece = 0; piece < FirstFlight::kPiecesLimit; ++piece) alternating += "bx";
  const std::tuple<const char*, std::vector<std::pair<size_t, std::string>>, std::string> kCases[] = {
      {"out of order, across 2^32", {{0xffffffff, "abc"}, {8, "jk"}, {5, "ghi"}, {2, "def"}}, "abcdefghijk"},
      {"retransmissions replace nothing", {{1, "abc"}, {1, "XYZd"}, {3, "YZe"}}, "abcde"},
      {"a segment over several gaps", {{1, "a"}, {5, "e"}, {3, "c"}, {2, "BXDXFG"}, {9, "i"}}, "aBcDeFG"},
      {"overlapping pieces after a gap", {{1, "a"}, {4, "def"}, {3, "cX"}, {5, "XX7"}, {2, "b"}}, "abcdef7"},
      {"an empty segment does not begin the flight", {{9, ""}, {5, "abc"}, {7, ""}, {7, "c"}}, "abc"},
      {"a segment before the begin ends it", {{5, "abc"}, {9, "e"}, {4, "xab"}, {8, "d"}}, "abc."},
      {"any number of bytes in order", {{7, large}, {7 + large.size(), large}}, large + large},
      {"as many behind a gap", {{7, "a"}, {9, large.substr(1)}, {8, "a"}}, "aa" + large.substr(1)},
      {"too many bytes behind a gap", {{7, "a"}, {9, large}, {8, "a"}, {9, "b"}}, "a|ab"},
      {"too many pieces behind a gap", scattered, "a|" + alternating},
      {"pieces that touch count as one", touching, "ab" + std::string(FirstFlight::kPiecesLimit + 1, 'x')},
  };
  for (const auto& [name, segments, bytes] : kCases) EXPECT_EQ(reassemble(segments), bytes) << name;
}

TEST(FirstFlight, FreesTheBytesThatItForgets) {
  const std::vector<uint8_t> bytes(1000, 'x');
  FirstFlight flight(0);
  flight.add(1, bytes);
  EXPECT_GE(flight.storedBytes(), bytes.size());
  flight.forgetStored();
  EXPECT_EQ(flight.storedBytes(), 0U);
}

}  // namespace
}  // namespace orvane

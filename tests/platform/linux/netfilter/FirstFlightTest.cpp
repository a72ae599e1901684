#include <gtest/gtest.h>

#include "platform/linux/netfilter/FirstFlight.h"

namespace orvane {
namespace {

// The bytes, with a dot at the end when no more are wanted.
std::string put_together(const std::vector<std::pair<size_t, std::string>>& segments) {
  FirstFlight flight;
  bool more = true;
  for (const auto& [sequence, payload] : segments) {
    std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    more = flight.add(static_cast<uint32_t>(sequence), bytes);
  }
  return std::string(flight.bytes().begin(), flight.bytes().end()) + (more ? "" : ".");
}

TEST(FirstFlight, LosesRepeatsOrReplacesBytesOrTakesTooMany) {
  const std::string all(FirstFlight::kLimit, 'a'), most = all.substr(1);
  const std::pair<std::vector<std::pair<size_t, std::string>>, std::string> kRows[] = {
      {{{0xffffffff, "abc"}, {8, "jk"}, {5, "ghi"}, {2, "def"}}, "abcdefghijk"},
      {{{1, "abc"}, {1, "XYZd"}, {3, "YZe"}}, "abcde"},
      {{{1, "a"}, {5, "e"}, {3, "c"}, {2, "BXDXFG"}, {9, "i"}}, "aBcDeFG"},
      {{{1, "a"}, {4, "def"}, {3, "cX"}, {5, "XX7"}, {2, "b"}}, "abcdef7"},
      {{{9, ""}, {5, "abc"}, {7, ""}, {7, "c"}}, "abc"},
      {{{5, "abc"}, {9, "e"}, {4, "xab"}, {8, "d"}}, "abc."},
      {{{7, all + "b"}, {7, "c"}}, all + "."},
      {{{7, "a"}, {9, most}, {8, "a"}}, all + "."},
      {{{7, most}, {7 + all.size(), "b"}}, most + "."},
  };
  for (const auto& [segments, bytes] : kRows) EXPECT_EQ(put_together(segments), bytes);
}

}  // namespace
}  // namespace orvane

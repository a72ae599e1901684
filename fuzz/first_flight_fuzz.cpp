#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/linux/netfilter/FirstFlight.h"

using namespace orvane;

namespace {

// One cell for each byte, which keeps its first value.
struct Model {
  std::vector<std::optional<uint8_t>> cells = std::vector<std::optional<uint8_t>>(FirstFlight::kLimit);
  size_t empty = FirstFlight::kLimit;
  std::optional<uint32_t> begin;
  bool complete = false;

  bool add(uint32_t sequence, std::span<const uint8_t> payload) {
    if (complete || payload.empty()) return !complete;
    if (!begin) begin = sequence;
    auto distance = static_cast<int32_t>(sequence - *begin);
    complete = distance < 0 || static_cast<size_t>(distance) >= cells.size();
    for (size_t i = 0; !complete && i < payload.size() && distance + i < cells.size(); ++i) {
      if (cells[distance + i]) continue;
      cells[distance + i] = payload[i];
      --empty;
    }
    complete = complete || empty == 0;
    return !complete;
  }
};

// Repeats after 256 bytes.
const auto kContents = [] {
  std::array<uint8_t, 65536 + 256> contents{};
  for (size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<uint8_t>(i * 7);
  return contents;
}();

}  // namespace

// The input: four bytes of the first sequence number, then for each segment two bytes of its offset (8192 is the first
// sequence number) and two bytes of its length. Each segment has other contents, which shows whose bytes stay.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> input(data, std::min<size_t>(size, 4 + 4 * 200));
  if (input.size() < 4) return 0;
  auto number = [&](size_t at) { return static_cast<uint32_t>(input[at] | input[at + 1] << 8); };
  uint32_t first = number(0) | number(2) << 16;
  FirstFlight flight;
  Model model;
  for (size_t at = 4, segment = 0; at + 4 <= input.size(); at += 4, ++segment) {
    auto payload = std::span(kContents).subspan(segment * 31 % 256, number(at + 2));
    uint32_t sequence = first + (at == 4 ? 0 : number(at) - 8192);
    if (flight.add(sequence, payload) != model.add(sequence, payload)) abort();
  }
  auto gap = std::find(model.cells.begin(), model.cells.end(), std::nullopt);
  auto bytes = flight.bytes();
  if (!std::equal(bytes.begin(), bytes.end(), model.cells.begin(), gap)) abort();
  return 0;
}

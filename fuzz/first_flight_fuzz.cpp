#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/linux/flow/FirstFlight.h"

using namespace orvane;

namespace {

constexpr size_t kCells = size_t{1} << 20;  // every segment of an input ends before this offset

// The expected flight: one cell for each byte. A cell keeps the first value that it gets.
struct Model {
  std::vector<std::optional<uint8_t>> cells;
  std::optional<uint32_t> begin;
  size_t ordered = 0;

  // Returns false for a segment that begins before the flight.
  bool add(uint32_t sequence, std::span<const uint8_t> payload) {
    if (payload.empty()) return true;
    if (!begin) begin = sequence;
    const auto distance = static_cast<int32_t>(sequence - *begin);
    if (distance < 0) return false;
    const auto at = static_cast<size_t>(distance);
    if (at + payload.size() > kCells) std::abort();
    if (cells.size() < at + payload.size()) cells.resize(at + payload.size());
    for (size_t i = 0; i < payload.size(); ++i) {
      if (!cells[at + i]) cells[at + i] = payload[i];
    }
    while (ordered < cells.size() && cells[ordered]) ++ordered;
    return true;
  }
};

// Every segment is a part of these bytes. The content repeats every 256 bytes.
const auto kContents = [] {
  std::array<uint8_t, 6000 + 256> contents{};
  for (size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<uint8_t>(i * 7);
  return contents;
}();

}  // namespace

// The input has four bytes for the first sequence number. Then each segment has two bytes for its offset (512 means the
// first sequence number) and two bytes for its length. The segments differ in their content, so that a byte from the
// wrong segment is noticed.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> input(data, std::min<size_t>(size, 4 + 4 * 60));
  if (input.size() < 4) return 0;
  auto number = [&](size_t at) { return static_cast<uint32_t>(input[at] | input[at + 1] << 8); };
  const uint32_t first = number(0) | number(2) << 16;
  FirstFlight flight;
  Model model;
  std::vector<uint8_t> seen;
  for (size_t at = 4, segment = 0; at + 4 <= input.size(); at += 4, ++segment) {
    // Most segments are short, because the model's work grows with the number of bytes.
    const size_t length = number(at + 2) < 65280 ? number(at + 2) % 64 : 6000;
    auto payload = std::span(kContents).subspan(segment * 31 % 256, length);
    const uint32_t sequence = first + (at == 4 ? 0 : number(at) % 4096 - 512);
    const bool modelGoesOn = model.add(sequence, payload);
    const FirstFlight::Added added = flight.add(sequence, payload);
    if (modelGoesOn == (added == FirstFlight::Added::Broken)) std::abort();
    if (added != FirstFlight::Added::Yes) return 0;  // the segment begins before the flight, or finds no room
    seen.insert(seen.end(), flight.next().begin(), flight.next().end());
    if (seen.size() != model.ordered || seen.size() != flight.length()) std::abort();
  }
  if (!std::equal(seen.begin(), seen.end(), model.cells.begin())) std::abort();
  return 0;
}

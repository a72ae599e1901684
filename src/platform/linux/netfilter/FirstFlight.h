#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace orvane {

// The first outbound bytes of one TCP connection, put in order as its segments are seen: out of order, retransmitted,
// overlapping. The first segment that is seen begins the flight. Bytes that were seen once are never replaced: what a
// retransmission says differently of them is left out.
//
// Not thread-safe: a connection belongs to one queue thread.
class FirstFlight {
 public:
  // As many bytes as are kept, those that wait for a gap to be filled included.
  static constexpr size_t kLimit = 16384;
  // As many pieces as may lie beyond gaps. A sender has lost few of its first segments.
  static constexpr size_t kPartsLimit = 64;

  // Adds a segment at its TCP sequence number (these wrap at 2^32). Returns false when the flight is as complete as it
  // will get: it is full or in too many pieces, or the segment lies before the flight's begin or beyond its limit. The
  // bytes stay as they are from then on, up to what fits. A segment without payload adds nothing and begins nothing.
  bool add(uint32_t sequence, std::span<const uint8_t> payload);

  // The bytes without a gap from the begin on. Valid until the next add().
  std::span<const uint8_t> bytes() const { return bytes_; }

 private:
  void keep(uint32_t offset, std::span<const uint8_t> payload);

  bool begun_ = false, complete_ = false;
  uint32_t begin_ = 0;                              // the sequence number of the first byte
  std::vector<uint8_t> bytes_;                      // without a gap
  std::map<uint32_t, std::vector<uint8_t>> later_;  // beyond a gap, by offset from the begin; do not overlap
};

}  // namespace orvane

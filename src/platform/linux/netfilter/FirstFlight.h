#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace orvane {

// Reassembles the first outbound bytes of one TCP connection. Segments may come out of order, overlap, or come again.
// The first segment with payload begins the flight. A retransmission never replaces bytes: the first ones stay.
//
// Not thread-safe: a connection belongs to one queue thread.
class FirstFlight {
 public:
  // The most bytes that a flight has, those after a gap included.
  static constexpr size_t kLimit = 16384;
  // The most pieces after a gap. Real senders lose few of their first segments.
  static constexpr size_t kOutOfOrderLimit = 64;

  // Adds a segment at its TCP sequence number (modulo 2^32). Returns false once the flight takes no more bytes: it is
  // full, it has too many pieces, or a segment lay before its begin or beyond its limit. An empty segment is ignored.
  bool add(uint32_t sequence, std::span<const uint8_t> payload);

  // The bytes from the begin to the first gap. Valid until the next add().
  std::span<const uint8_t> bytes() const { return bytes_; }

 private:
  void insert(uint32_t offset, std::span<const uint8_t> payload);

  bool hasBegun_ = false, isComplete_ = false;
  uint32_t begin_ = 0;                                   // the sequence number of the first byte
  std::vector<uint8_t> bytes_;                           // up to the first gap
  std::map<uint32_t, std::vector<uint8_t>> outOfOrder_;  // pieces after it, by offset from begin_; they do not overlap
};

}  // namespace orvane

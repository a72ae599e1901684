#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace orvane {

// Puts the first outbound segments of one TCP connection in order: segments may arrive out of order, again, or
// overlapping. The first segment that is seen begins the flight. Each byte is given out once; bytes that were given out
// or kept are never replaced by those of a retransmission. Keeps only the bytes behind a gap.
//
// Not thread-safe: a connection belongs to one queue thread.
class FirstFlight {
 public:
  // Bytes and pieces that may wait for a gap to be filled. A sender has lost few of its first segments.
  static constexpr size_t kBytesLimit = size_t{256} << 10;
  static constexpr size_t kPiecesLimit = 64;

  // Adds a segment at its TCP sequence number (these wrap at 2^32). Returns false, now and from then on, when the
  // flight cannot go on: too much waits for a gap, or the segment begins before the flight. A segment without payload
  // adds nothing and begins nothing.
  bool add(uint32_t sequence, std::span<const uint8_t> payload);

  // The bytes that the last add() put in order, behind those of the adds before. Valid until the next add(), and while
  // its payload is.
  std::span<const uint8_t> next() const { return next_; }

  // How many bytes are in order, those of next() included.
  uint64_t length() const { return length_; }

 private:
  void keep(uint64_t offset, std::span<const uint8_t> payload);

  bool begun_ = false, broken_ = false;
  uint32_t begin_ = 0;  // the sequence number of the first byte
  uint64_t length_ = 0;
  size_t waitingBytes_ = 0;
  std::map<uint64_t, std::vector<uint8_t>> waiting_;  // behind a gap, by offset from the begin; do not overlap
  std::vector<uint8_t> joined_;                       // what next_ refers to when it is not the payload itself
  std::span<const uint8_t> next_;
};

}  // namespace orvane

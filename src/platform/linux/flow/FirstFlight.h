#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace orvane {

// Puts in order the first outbound segments of one TCP connection, or the first CRYPTO frames of one QUIC connection
// (here also called segments). Segments may arrive out of order, twice, or overlapping. next() returns each byte once,
// and a retransmission never replaces a byte. Bytes that are in order are returned at once; only bytes that arrive
// after a gap are stored.
//
// Not thread-safe: a connection belongs to one queue thread.
class FirstFlight {
 public:
  // Limits on the stored bytes, and on the stored pieces (runs of bytes without a gap). Real connections stay below the
  // limits, because few of their first segments are lost.
  static constexpr size_t kBytesLimit = size_t{256} << 10;
  static constexpr size_t kPiecesLimit = 64;

  // The flight (the bytes in order) starts with the segment that is added first.
  FirstFlight() = default;
  // The flight starts at this sequence number.
  explicit FirstFlight(uint32_t begin) : begun_(true), begin_(begin) {}

  // Adds a segment at its sequence number (numbers wrap at 2^32). Returns false when the flight cannot continue: more
  // bytes or pieces would be stored than the limits allow, or the segment begins before the flight. After that every
  // call returns false. A segment without payload is ignored, even if it is added first.
  bool add(uint32_t sequence, std::span<const uint8_t> payload);

  // The bytes that the last add() put in order; they follow the bytes of the earlier calls. Valid until the next add(),
  // and only while the payload of the last add() is valid.
  std::span<const uint8_t> next() const { return next_; }

  // The number of bytes in order so far, with those of next().
  uint64_t length() const { return length_; }

 private:
  void keep(uint64_t offset, std::span<const uint8_t> payload);

  bool begun_ = false, broken_ = false;
  uint32_t begin_ = 0;  // the sequence number of the first byte
  uint64_t length_ = 0;
  size_t waitingBytes_ = 0;
  std::map<uint64_t, std::vector<uint8_t>> waiting_;  // the stored pieces, by offset; they do not overlap
  std::vector<uint8_t> joined_;                       // storage for next_, if its bytes are not all in the payload
  std::span<const uint8_t> next_;
};

}  // namespace orvane

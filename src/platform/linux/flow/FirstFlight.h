#pragma once

#include <cstddef>
#include <cstdint>
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
  // Limits on the distance from the first gap to the end of the stored bytes, and on the stored pieces (runs of bytes
  // without a gap). Real connections stay below the limits, because few of their first segments are lost.
  static constexpr size_t kBytesLimit = size_t{256} << 10;
  static constexpr size_t kPiecesLimit = 64;

  // The flight (the bytes in order) starts with the segment that is added first.
  FirstFlight() = default;
  // The flight starts at this sequence number.
  explicit FirstFlight(uint32_t begin) : begun_(true), begin_(begin) {}

  // If no segment was added yet, makes the flight start at the connection's first byte, whose sequence number is
  // `first`. Without this call, a flight whose first segment is lost would start in the middle of the connection. If
  // the segment that is added first is too far from `first` to be stored, the flight starts with this segment all the
  // same: the bytes before it were sent before the caller saw the connection.
  void expect(uint32_t first);

  enum class Added {
    Yes,
    Full,    // a limit left no room, and no byte of the segment was added; its sender must send it again
    Broken,  // this segment, or an earlier one, begins before the flight, so the flight cannot continue
  };

  // Adds a segment at its sequence number (numbers wrap at 2^32). A segment without payload is ignored, even if it is
  // added first.
  Added add(uint32_t sequence, std::span<const uint8_t> payload);

  // Whether all bytes before this sequence number are in order, so that a FIN there ends the flight.
  bool reaches(uint32_t sequence) const { return startsWith(sequence) || distanceTo(sequence) <= 0; }

  // The bytes that the last add() put in order; they follow the bytes of the earlier calls. Valid until the next add()
  // or forgetStored(), and only while the payload of the last add() is valid.
  std::span<const uint8_t> next() const { return next_; }

  // The number of bytes in order so far, with those of next().
  uint64_t length() const { return length_; }

  // The memory for the bytes after gaps.
  size_t storedBytes() const { return stored_.capacity(); }

  // Frees this memory. The forgotten bytes must be added again.
  void forgetStored();

 private:
  struct Piece {
    uint64_t begin, end;  // offsets in the flight
  };

  // Whether the flight would start with a segment at this sequence number if the segment were added now.
  bool startsWith(uint32_t sequence) const { return !begun_ && (!isExpected_ || sequence - begin_ >= kBytesLimit); }
  // The distance from the next expected byte. It is not measured from the first byte of the flight, so it fits into 32
  // bits even if the flight has more than 2^32 bytes.
  int64_t distanceTo(uint32_t sequence) const {
    return static_cast<int32_t>(sequence - static_cast<uint32_t>(begin_ + length_));
  }
  Added addPiece(uint64_t offset, std::span<const uint8_t> payload);

  bool begun_ = false, isExpected_ = false, broken_ = false;
  uint32_t begin_ = 0;  // the sequence number of the first byte
  uint64_t length_ = 0;
  std::vector<Piece> pieces_;    // sorted; there is a gap before each
  std::vector<uint8_t> stored_;  // the bytes of the pieces, and room for the bytes of the gaps
  uint64_t storedFrom_ = 0;      // the offset in the flight of the first byte in stored_
  std::span<const uint8_t> next_;
};

}  // namespace orvane

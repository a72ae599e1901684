#include "platform/linux/flow/FirstFlight.h"

#include <algorithm>

namespace orvane {

bool FirstFlight::add(uint32_t sequence, std::span<const uint8_t> payload) {
  next_ = {};
  if (broken_ || payload.empty()) return !broken_;
  if (!begun_) begin_ = sequence;
  begun_ = true;
  // The distance is measured from the next expected byte, not from the first byte of the flight. So it fits into 32
  // bits even if the flight has more than 2^32 bytes.
  const auto expected = static_cast<uint32_t>(begin_ + length_);
  const auto distance = static_cast<int32_t>(sequence - expected);
  if (distance < 0 && static_cast<uint64_t>(-static_cast<int64_t>(distance)) > length_) {
    broken_ = true;  // the segment begins before the flight
    return false;
  }
  if (distance <= 0 && waiting_.empty()) {
    const auto known = static_cast<size_t>(-static_cast<int64_t>(distance));
    next_ = payload.subspan(std::min(known, payload.size()));
    length_ += next_.size();
    return true;
  }
  keep(length_ + static_cast<uint64_t>(static_cast<int64_t>(distance)), payload);
  joined_.clear();
  while (!waiting_.empty() && waiting_.begin()->first == length_) {
    const std::vector<uint8_t>& piece = waiting_.begin()->second;
    joined_.insert(joined_.end(), piece.begin(), piece.end());
    length_ += piece.size();
    waitingBytes_ -= piece.size();
    waiting_.erase(waiting_.begin());
  }
  next_ = joined_;
  broken_ = waitingBytes_ > kBytesLimit || waiting_.size() > kPiecesLimit;
  if (broken_) waiting_.clear();
  return !broken_;
}

// Stores the new bytes of a segment: those that are neither in the flight nor in a stored piece. `offset` is the
// distance from the start of the flight to the start of the payload.
void FirstFlight::keep(uint64_t offset, std::span<const uint8_t> payload) {
  const uint64_t end = offset + payload.size();
  uint64_t at = std::max(offset, length_);
  auto piece = waiting_.upper_bound(at);
  if (piece != waiting_.begin()) {
    const auto& [start, before] = *std::prev(piece);
    at = std::max(at, start + before.size());
  }
  while (at < end) {
    const uint64_t stop = piece == waiting_.end() ? end : std::min(end, piece->first);
    if (stop > at) {
      auto part = payload.subspan(at - offset, stop - at);
      waiting_.emplace_hint(piece, at, std::vector<uint8_t>(part.begin(), part.end()));
      waitingBytes_ += part.size();
    }
    if (piece == waiting_.end()) break;
    at = piece->first + piece->second.size();
    ++piece;
  }
}

}  // namespace orvane

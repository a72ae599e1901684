#include "platform/linux/flow/FirstFlight.h"

#include <algorithm>

namespace orvane {

void FirstFlight::expect(uint32_t first) {
  if (begun_) return;
  begin_ = first;
  isExpected_ = true;
}

FirstFlight::Added FirstFlight::add(uint32_t sequence, std::span<const uint8_t> payload) {
  next_ = {};
  if (broken_) return Added::Broken;
  if (payload.empty()) return Added::Yes;
  if (startsWith(sequence)) begin_ = sequence;
  begun_ = true;
  const int64_t distance = distanceTo(sequence);
  const auto known = static_cast<uint64_t>(std::max<int64_t>(-distance, 0));
  broken_ = known > length_;
  if (broken_) return Added::Broken;
  if (known > 0) payload = payload.subspan(std::min<uint64_t>(known, payload.size()));
  if (distance > 0 || !pieces_.empty()) return addPiece(length_ + static_cast<uint64_t>(distance) + known, payload);
  stored_ = std::vector<uint8_t>();  // an assignment of {} would keep the memory
  next_ = payload;
  length_ += payload.size();
  return Added::Yes;
}

// Adds a segment when there is a gap before it, or when pieces are stored already. `offset` is the segment's begin in
// the flight. Stores only bytes that are not stored yet, and merges all pieces that overlap or touch the segment.
FirstFlight::Added FirstFlight::addPiece(uint64_t offset, std::span<const uint8_t> payload) {
  Piece merged{offset, offset + payload.size()};
  if (merged.end - length_ > kBytesLimit) return Added::Full;
  const auto first = std::ranges::lower_bound(pieces_, merged.begin, {}, &Piece::end);
  const auto last = std::ranges::upper_bound(first, pieces_.end(), merged.end, {}, &Piece::begin);
  if (first == last && offset > length_ && pieces_.size() == kPiecesLimit) return Added::Full;

  // Bytes that next() has returned are removed only when stored_ has no other bytes, or when they are more than half of
  // stored_, because a removal moves the other bytes.
  const auto returned = static_cast<size_t>(length_ - storedFrom_);
  if (pieces_.empty() || returned > stored_.size() / 2) {
    stored_.erase(stored_.begin(), stored_.begin() + static_cast<ptrdiff_t>(std::min(returned, stored_.size())));
    storedFrom_ = length_;
  }
  const auto needed = static_cast<size_t>(merged.end - storedFrom_);
  if (stored_.size() < needed) stored_.resize(needed);
  auto store = [&](uint64_t from, uint64_t to) {
    if (from >= to) return;
    const auto bytes = payload.subspan(from - offset, to - from);
    std::ranges::copy(bytes, stored_.begin() + static_cast<ptrdiff_t>(from - storedFrom_));
  };
  uint64_t at = offset;
  for (auto piece = first; piece != last; ++piece) {
    store(at, piece->begin);
    at = piece->end;
  }
  store(at, merged.end);
  if (first != last) merged = {std::min(merged.begin, first->begin), std::max(merged.end, at)};
  pieces_.insert(pieces_.erase(first, last), merged);

  if (merged.begin > length_) return Added::Yes;
  next_ = std::span(stored_).subspan(length_ - storedFrom_, merged.end - length_);
  length_ = merged.end;
  pieces_.erase(pieces_.begin());
  return Added::Yes;
}

void FirstFlight::forgetStored() {
  next_ = {};
  pieces_.clear();
  stored_ = std::vector<uint8_t>();
}

}  // namespace orvane

#include "platform/linux/netfilter/FirstFlight.h"

#include <algorithm>

namespace orvane {

bool FirstFlight::add(uint32_t sequence, std::span<const uint8_t> payload) {
  if (isComplete_ || payload.empty()) return !isComplete_;
  if (!hasBegun_) begin_ = sequence;
  hasBegun_ = true;
  uint32_t offset = sequence - begin_;  // wraps for a segment before the begin, and then exceeds the limit
  if (offset < kLimit) {
    insert(offset, payload.first(std::min(payload.size(), kLimit - offset)));
    isComplete_ = bytes_.size() == kLimit || outOfOrder_.size() > kOutOfOrderLimit;
  } else {
    isComplete_ = true;
  }
  if (isComplete_) outOfOrder_.clear();
  return !isComplete_;
}

// Inserts the bytes that the flight does not have yet.
void FirstFlight::insert(uint32_t offset, std::span<const uint8_t> payload) {
  size_t end = offset + payload.size();
  size_t at = std::max<size_t>(offset, bytes_.size());
  auto next = outOfOrder_.upper_bound(static_cast<uint32_t>(at));
  if (next != outOfOrder_.begin()) {
    const auto& [start, before] = *std::prev(next);
    at = std::max(at, start + before.size());
  }
  while (at < end) {
    size_t stop = next == outOfOrder_.end() ? end : std::min<size_t>(end, next->first);
    auto part = payload.subspan(at - offset, stop - at);
    if (at == bytes_.size()) {
      bytes_.insert(bytes_.end(), part.begin(), part.end());
    } else if (!part.empty()) {
      outOfOrder_.emplace_hint(next, static_cast<uint32_t>(at), std::vector<uint8_t>(part.begin(), part.end()));
    }
    if (next == outOfOrder_.end()) break;
    at = next->first + next->second.size();
    ++next;
  }
  for (auto first = outOfOrder_.begin(); first != outOfOrder_.end() && first->first == bytes_.size();) {
    bytes_.insert(bytes_.end(), first->second.begin(), first->second.end());
    first = outOfOrder_.erase(first);
  }
}

}  // namespace orvane

#include "platform/linux/netfilter/FirstFlight.h"

#include <algorithm>

namespace orvane {

bool FirstFlight::add(uint32_t sequence, std::span<const uint8_t> payload) {
  if (complete_ || payload.empty()) return !complete_;
  if (!begun_) begin_ = sequence;
  begun_ = true;
  uint32_t offset = sequence - begin_;  // what lies before the begin wraps to far beyond the limit
  if (offset < kLimit) {
    keep(offset, payload.first(std::min(payload.size(), kLimit - offset)));
    complete_ = bytes_.size() == kLimit || later_.size() > kPartsLimit;
  } else {
    complete_ = true;
  }
  if (complete_) later_.clear();
  return !complete_;
}

// Keeps those bytes that are new: between what is there already.
void FirstFlight::keep(uint32_t offset, std::span<const uint8_t> payload) {
  size_t end = offset + payload.size();
  size_t at = std::max<size_t>(offset, bytes_.size());
  auto next = later_.upper_bound(static_cast<uint32_t>(at));
  if (next != later_.begin()) {
    const auto& [start, before] = *std::prev(next);
    at = std::max(at, start + before.size());
  }
  while (at < end) {
    size_t stop = next == later_.end() ? end : std::min<size_t>(end, next->first);
    auto part = payload.subspan(at - offset, stop - at);
    if (at == bytes_.size()) {
      bytes_.insert(bytes_.end(), part.begin(), part.end());
    } else if (!part.empty()) {
      later_.emplace_hint(next, static_cast<uint32_t>(at), std::vector<uint8_t>(part.begin(), part.end()));
    }
    if (next == later_.end()) break;
    at = next->first + next->second.size();
    ++next;
  }
  for (auto first = later_.begin(); first != later_.end() && first->first == bytes_.size();) {
    bytes_.insert(bytes_.end(), first->second.begin(), first->second.end());
    first = later_.erase(first);
  }
}

}  // namespace orvane

#include "platform/macos/flow/FlowNames.h"

#include <algorithm>
#include <utility>

namespace orvane {

FlowNames::Result FlowNames::read(const std::string& flow, uint64_t offset, std::span<const uint8_t> bytes) {
  const std::lock_guard guard(mutex_);
  const auto kept = std::find_if(readers_.begin(), readers_.end(), [&](const Reader& r) { return r.flow == flow; });
  Reader reader{flow};
  if (kept != readers_.end()) {
    reader = std::move(*kept);
    readers_.erase(kept);
  }
  if (offset > reader.length) return {NameState::Unknown};
  const auto known = static_cast<size_t>(std::min<uint64_t>(reader.length - offset, bytes.size()));
  reader.length += bytes.size() - known;
  const NameState state = reader.names.read(bytes.subspan(known));
  if (state != NameState::Open) return {state, reader.names.name()};
  readers_.push_back(std::move(reader));
  if (readers_.size() > kFlowsLimit) readers_.pop_front();
  return {state};
}

void FlowNames::forget(const std::string& flow) {
  const std::lock_guard guard(mutex_);
  const auto kept = std::find_if(readers_.begin(), readers_.end(), [&](const Reader& r) { return r.flow == flow; });
  if (kept != readers_.end()) readers_.erase(kept);
}

}  // namespace orvane

#include "platform/linux/FilterSession.h"

#include <algorithm>

namespace orvane {

FilterSession::FilterSession(Ref<NEFilterDataProvider> provider, Ref<NEFilterFlow> flow)
    : provider_(std::move(provider)), flow_(std::move(flow)) {}

FilterSession::State FilterSession::newFlow() {
  NEFilterNewFlowVerdict verdict = provider_->handleNewFlow(*flow_);
  switch (verdict.kind) {
    case NEFilterNewFlowVerdict::Kind::Allow:
      return state_ = State::Allowed;
    case NEFilterNewFlowVerdict::Kind::Drop:
      return state_ = State::Dropped;
    case NEFilterNewFlowVerdict::Kind::FilterData:
      break;
  }
  if (!verdict.filterOutbound) return state_ = State::Allowed;
  peekBytes_ = verdict.peekOutboundBytes;
  return state_ = State::Examining;
}

FilterSession::State FilterSession::outboundData(std::span<const uint8_t> bytes) {
  if (state_ != State::Examining) return state_;
  auto shown = bytes.first(static_cast<size_t>(std::min<uint64_t>(bytes.size(), peekBytes_)));
  uint64_t start = offset_;
  offset_ += bytes.size();
  peekBytes_ -= shown.size();
  if (shown.empty()) return state_;
  return settle(provider_->handleOutboundDataFromFlow(*flow_, start, shown));
}

FilterSession::State FilterSession::outboundComplete() {
  if (state_ != State::Examining) return state_;
  return settle(provider_->handleOutboundDataCompleteForFlow(*flow_));
}

FilterSession::State FilterSession::settle(const NEFilterDataVerdict& verdict) {
  return state_ = verdict.kind == NEFilterDataVerdict::Kind::Drop ? State::Dropped : State::Allowed;
}

}  // namespace orvane

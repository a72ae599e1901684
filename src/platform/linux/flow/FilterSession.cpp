#include "platform/linux/flow/FilterSession.h"

#include <algorithm>

#include "platform/linux/flow/FlowCounters.h"

namespace orvane {
namespace {

void count(FlowCounters::Count& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

FilterSession::FilterSession(Ref<NEFilterDataProvider> provider, Ref<NEFilterFlow> flow)
    : provider_(std::move(provider)), flow_(std::move(flow)) {}

FilterSession::State FilterSession::newFlow(uint64_t passed) {
  offset_ = passed;
  count(flow_counters().flows);
  if (flow_->sourceAppAuditToken().isNil()) count(flow_counters().unknownOwners);
  NEFilterNewFlowVerdict verdict = provider_->handleNewFlow(*flow_);
  if (verdict.kind == NEFilterNewFlowVerdict::Kind::Drop) {
    count(flow_counters().dropped);
    return state_ = State::Dropped;
  }
  if (verdict.kind == NEFilterNewFlowVerdict::Kind::Allow || !verdict.filterOutbound) {
    count(flow_counters().allowed);
    return state_ = State::Allowed;
  }
  count(flow_counters().examined);
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

FilterSession::State FilterSession::refuse() {
  if (state_ != State::Examining) return state_;
  count(flow_counters().droppedByData);
  return state_ = State::Dropped;
}

FilterSession::State FilterSession::settle(const NEFilterDataVerdict& verdict) {
  bool drops = verdict.kind == NEFilterDataVerdict::Kind::Drop;
  count(drops ? flow_counters().droppedByData : flow_counters().allowedByData);
  return state_ = drops ? State::Dropped : State::Allowed;
}

}  // namespace orvane

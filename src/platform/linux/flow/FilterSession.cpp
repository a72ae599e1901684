#include "platform/linux/flow/FilterSession.h"

#include <algorithm>

#include "platform/IdentityAnswers.h"
#include "platform/linux/flow/DropRecords.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/process/ProcessInformation.h"
#include "platform/names/MarkedNames.h"

namespace orvane {
namespace {

void count(FlowCounters::Count& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

// Asks the provider for its verdict under all names of the flow; a call of `ask` asks one question.
template <class Ask>
auto FilterSession::judge(Ask ask) {
  const IdentityAnswers sameProcess;
  const auto verdict = judge_under_all_names(names_.hostName(), [&](std::optional<std::string> alias) {
    names_.setAlias(std::move(alias));
    return ask();
  });
  names_.setAlias(std::nullopt);
  // The provider need not ask again whose flow it is when it gets the flow's data.
  if (verdict.kind != decltype(verdict)::Kind::Allow && drop_records().isOn())
    browser_ = sameProcess.lastIdentifier().value_or(browser_);
  return verdict;
}

FilterSession::State FilterSession::newFlow(uint64_t passed) {
  offset_ = passed;
  count(flow_counters().flows);
  if (flow_->sourceAppAuditToken().isNil()) count(flow_counters().unknownOwners);
  const NEFilterNewFlowVerdict verdict = judge([this] { return provider_->handleNewFlow(*flow_); });
  if (verdict.kind == NEFilterNewFlowVerdict::Kind::Drop) {
    count(flow_counters().dropped);
    record();
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
  return settle(judge([&] { return provider_->handleOutboundDataFromFlow(*flow_, start, shown); }));
}

FilterSession::State FilterSession::outboundComplete() {
  if (state_ != State::Examining) return state_;
  return settle(judge([this] { return provider_->handleOutboundDataCompleteForFlow(*flow_); }));
}

FilterSession::State FilterSession::openFlow() {
  isRecorded_ = false;
  newFlow();
  const uint8_t anyByte = '?';
  if (holdsData()) outboundData({&anyByte, 1});
  return state_ = state_ == State::Dropped ? State::Dropped : State::Allowed;
}

FilterSession::State FilterSession::refuse() {
  if (state_ != State::Examining) return state_;
  count(flow_counters().droppedByData);
  return state_ = State::Dropped;
}

FilterSession::State FilterSession::settle(const NEFilterDataVerdict& verdict) {
  bool drops = verdict.kind == NEFilterDataVerdict::Kind::Drop;
  count(drops ? flow_counters().droppedByData : flow_counters().allowedByData);
  if (drops) record();
  return state_ = drops ? State::Dropped : State::Allowed;
}

void FilterSession::record() const {
  if (!isRecorded_ || !drop_records().isOn() || !names_.hostName()) return;
  constexpr size_t kRealUser = 3;
  const auto token = read_audit_token(flow_->sourceAppAuditToken());
  drop_records().record(*names_.hostName(), browser_, token.value_or(audit_token_t{}).val[kRealUser]);
}

}  // namespace orvane

#include "platform/linux/flow/FilterSession.h"

#include <algorithm>
#include <vector>

#include "platform/linux/flow/DropRecords.h"
#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/process/IdentityAnswers.h"
#include "platform/linux/process/ProcessInformation.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

void count(FlowCounters::Count& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

// Asks the provider the series of questions that FilterSession.h describes; a call of `ask` asks one question. Returns
// the verdict on the flow.
template <class Ask>
auto FilterSession::judge(Ask ask) {
  const IdentityAnswers sameProcess;
  auto verdict = ask();
  using Kind = decltype(verdict.kind);
  const std::vector<std::string_view> hosts =
      names_.hostName() ? covering_hosts(*names_.hostName()) : std::vector<std::string_view>();
  // Asks under the names with this mark, one after the other, and stops at the first verdict that is not Allow. Returns
  // the last verdict.
  auto askUnder = [&](std::string_view mark) {
    auto answer = decltype(verdict)::allowVerdict();
    for (size_t i = 0; i < hosts.size() && answer.kind == Kind::Allow; ++i) {
      names_.setAlias(std::string(mark).append(hosts[i]));
      answer = ask();
    }
    names_.setAlias(std::nullopt);
    return answer;
  };
  if (verdict.kind == Kind::Allow) verdict = askUnder(kSubdomainsMark);
  if (verdict.kind == Kind::Drop && askUnder(kExceptionMark).kind == Kind::Drop) {
    return decltype(verdict)::allowVerdict();
  }
  // The provider need not ask again whose flow it is when it gets the flow's data.
  if (verdict.kind != Kind::Allow && drop_records().isOn()) browser_ = sameProcess.lastIdentifier().value_or(browser_);
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

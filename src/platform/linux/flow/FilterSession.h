#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/NetworkExtension.h"
#include "platform/linux/flow/LinuxFlow.h"

namespace orvane {

// Calls the provider for one flow: once for the new flow, then for outbound data up to the peek count, then for the end
// of the outbound side. The first final verdict settles the flow; the provider is not asked again.
//
// Each of these calls is a series of questions to the provider, because the list may contain marked names
// (MarkedNames.h). During a series, the thread looks up the identity of each process only once (IdentityAnswers).
//
// If the process records dropped flows (DropRecords.h), the session records its flow when the provider drops it. A flow
// without a host name is not recorded.
//
// The session stores no data. While holdsData() is true, outbound bytes must wait, and the caller keeps them. What a
// verdict says about inbound data is ignored, because no callback of the provider takes inbound data.
//
// Not thread-safe: a flow belongs to one thread.
class FilterSession {
 public:
  enum class State {
    New,        // newFlow() was not called yet
    Examining,  // the provider wants outbound data
    Allowed,    // final
    Dropped,    // final
  };

  // `Flow` is LinuxSocketFlow or LinuxURLFlow.
  template <class Flow>
  FilterSession(Ref<NEFilterDataProvider> provider, const Ref<Flow>& flow)
      : provider_(std::move(provider)), flow_(flow), names_(*flow) {}

  // Shows the flow to the provider. Call it once, before the other functions. `passed` is the number of outbound bytes
  // that passed before this call.
  State newFlow(uint64_t passed = 0);

  // Shows the next outbound bytes, up to the peek count. Every data verdict is final, so the first bytes that the
  // provider sees settle the flow.
  State outboundData(std::span<const uint8_t> bytes);

  // Tells the provider that the outbound side has ended. The provider's verdict settles the flow.
  State outboundComplete();

  // Shows the provider a flow that is already open, and settles the flow. Call it in place of the functions above. The
  // flow's first bytes have passed and are no longer available, so a provider that asks for data gets one byte, '?',
  // which no host name contains. The drop of such a flow is not recorded, for two reasons: the caller may not know yet
  // that the flow has ended by itself; and if the drop ends the flow, the browser opens a new flow, whose drop is
  // recorded.
  State openFlow();

  // Drops an examined flow without asking the provider. For a caller that cannot show the flow's data to the provider.
  State refuse();

  State state() const { return state_; }

  // Whether outbound bytes must wait for the next verdict. False for an examined flow with a peek count of 0: its bytes
  // pass, and the provider is asked only about its end.
  bool holdsData() const { return state_ == State::New || (state_ == State::Examining && peekBytes_ > 0); }

 private:
  template <class Ask>
  auto judge(Ask ask);
  State settle(const NEFilterDataVerdict& verdict);
  void record() const;

  Ref<NEFilterDataProvider> provider_;
  Ref<NEFilterFlow> flow_;
  NamedFlow& names_;  // the same object as *flow_
  State state_ = State::New;
  uint64_t peekBytes_ = 0;  // how many more outbound bytes the provider may see
  uint64_t offset_ = 0;     // the number of outbound bytes so far
  bool isRecorded_ = true;  // whether a drop is recorded: not for openFlow()
  std::string browser_;     // the browser's bundle identifier, if dropped flows are recorded
};

}  // namespace orvane

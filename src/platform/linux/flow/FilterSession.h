#pragma once

#include <cstdint>
#include <span>

#include "platform/NetworkExtension.h"

namespace orvane {

// Carries one flow through the provider's callbacks: the new flow once, then outbound data up to the peek count, then
// the end of the outbound side. The first final answer settles the flow, and the provider is not asked again.
//
// The session sees bytes and never keeps any: whoever owns the flow holds them back as long as holdsData() says so. No
// callback of the provider takes inbound data, so the inbound half of a verdict asks for nothing.
//
// Not thread-safe: a flow belongs to one thread.
class FilterSession {
 public:
  enum class State {
    New,        // not shown yet
    Examining,  // the provider wants to see outbound data
    Allowed,    // final
    Dropped,    // final
  };

  FilterSession(Ref<NEFilterDataProvider> provider, Ref<NEFilterFlow> flow);

  // Shows the flow. Call it once, before all others.
  State newFlow();

  // The next outbound bytes, in order. Of these the provider sees what the peek count leaves; every data verdict is
  // final, so the first chunk that it sees settles the flow.
  State outboundData(std::span<const uint8_t> bytes);

  // The outbound side has ended. Settles a flow that still is not.
  State outboundComplete();

  State state() const { return state_; }

  // Whether outbound bytes must not leave before the next answer. False for an examined flow with a peek count of 0:
  // its bytes pass, and its end is what the provider is asked about.
  bool holdsData() const { return state_ == State::New || (state_ == State::Examining && peekBytes_ > 0); }

 private:
  State settle(const NEFilterDataVerdict& verdict);

  Ref<NEFilterDataProvider> provider_;
  Ref<NEFilterFlow> flow_;
  State state_ = State::New;
  uint64_t peekBytes_ = 0;  // how many more outbound bytes the provider may see
  uint64_t offset_ = 0;     // outbound bytes so far
};

}  // namespace orvane

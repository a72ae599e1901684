#include <gtest/gtest.h>
#include <sys/socket.h>

#include "platform/linux/flow/FilterRules.h"
#include "platform/linux/flow/FilterSession.h"
#include "platform/linux/flow/LinuxFlow.h"
#include "platform/linux/flow/ScriptedProvider.h"

namespace orvane {
namespace {

TEST(FilterSession, ShowsDataUpToThePeekCountUntilAVerdict) {
  using NewFlow = NEFilterNewFlowVerdict;
  using Data = NEFilterDataVerdict;
  using State = FilterSession::State;
  auto peek = [](uint64_t count) { return NewFlow::filterDataVerdictWithFilterInbound(false, 0, true, count); };
  const auto all = peek(kFilterFlowBytesMax), dropFlow = NewFlow::dropVerdict();
  const Data allow = Data::allowVerdict(), drop = Data::dropVerdict();
  const struct {
    const char* name;
    NewFlow newFlow;
    Data data, complete;
    std::string_view chunks[2];
    const char* seen;  // the calls of the provider, and the bytes that it received
    State end;
    bool holds;  // holdsData() after the new flow
  } kCases[] = {
      {"drop of the new flow", dropFlow, allow, allow, {"a"}, "new -; ", State::Dropped, false},
      {"a drop by data is final", all, drop, allow, {"one", "two"}, "new -; data 0 -; one", State::Dropped, true},
      {"an allowance by data is final", all, allow, drop, {"one", "two"}, "new -; data 0 -; one", State::Allowed, true},
      {"the peek count limits the data", peek(2), drop, allow, {"one"}, "new -; data 0 -; on", State::Dropped, true},
      {"an empty chunk is no data", all, drop, allow, {""}, "new -; complete -; ", State::Allowed, true},
      {"peek count of 0", peek(0), allow, drop, {"one"}, "new -; complete -; ", State::Dropped, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    auto provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
    provider->newFlow = c.newFlow;
    provider->data = c.data;
    provider->complete = c.complete;
    FilterSession session(provider, LinuxSocketFlow::create(nullptr, "host.example", 443, SOCK_STREAM));
    EXPECT_TRUE(session.holdsData());
    session.newFlow();
    EXPECT_EQ(session.holdsData(), c.holds);
    for (std::string_view chunk : c.chunks) {
      session.outboundData({reinterpret_cast<const uint8_t*>(chunk.data()), chunk.size()});
    }
    EXPECT_EQ(session.outboundComplete(), c.end);
    auto seen = provider->take();
    EXPECT_EQ(seen.calls + seen.bytes, c.seen);
  }
}

TEST(FilterRules, MatchByDirectionProtocolPortAndNetwork) {
  using Protocol = NENetworkRuleProtocol;
  using Action = NEFilterAction;
  constexpr auto kIn = NETrafficDirection::Inbound, kOut = NETrafficDirection::Outbound;
  const struct {
    const char* name;
    NETrafficDirection direction;
    Protocol protocol;
    const char *network, *networkPort;
    uint64_t prefix;
    const char* host;
    uint16_t port;
    bool matches;
  } kCases[] = {
      {"any protocol", kOut, Protocol::Any, "", "53", 0, "a.example", 53, true},
      {"inbound", kIn, Protocol::Any, "", "53", 0, "a.example", 53, false},
      {"another protocol", kOut, Protocol::UDP, "", "53", 0, "a.example", 53, false},
      {"a name in another case, any port", kOut, Protocol::TCP, "Only.Example", "0", 0, "only.example", 80, true},
      {"inside of a network", kOut, Protocol::TCP, "2001:db8::", "0", 33, "2001:db8:7fff::1", 80, true},
      {"outside of a network", kOut, Protocol::TCP, "2001:db8::", "0", 33, "2001:db8:8000::1", 80, false},
      {"another address", kOut, Protocol::TCP, "192.0.2.128", "0", 0, "192.0.2.129", 80, false},
  };
  for (const auto& c : kCases) {
    auto rule = NENetworkRule::initWithRemoteNetwork(NWHostEndpoint::endpointWithHostname(c.network, c.networkPort),
                                                     c.prefix, nullptr, 0, c.protocol, c.direction);
    auto settings =
        NEFilterSettings::initWithRules({NEFilterRule::initWithNetworkRule(rule, Action::Drop)}, Action::Allow);
    EXPECT_EQ(action_for_outbound_flow(settings, {c.host, c.port, Protocol::TCP}),
              c.matches ? Action::Drop : Action::Allow)
        << c.name;
  }
}

}  // namespace
}  // namespace orvane

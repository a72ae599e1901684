#include <gtest/gtest.h>
#include <sys/socket.h>

#include "platform/linux/FilterRules.h"
#include "platform/linux/FilterSession.h"
#include "platform/linux/LinuxFlow.h"

namespace orvane {
namespace {

using NewFlow = NEFilterNewFlowVerdict;
using Data = NEFilterDataVerdict;
using State = FilterSession::State;

// Answers as it is told, and writes down what it was asked.
class ScriptedProvider final : public NEFilterDataProvider {
 public:
  NewFlow newFlow = NewFlow::allowVerdict();
  Data data = Data::allowVerdict();
  Data complete = Data::allowVerdict();
  std::string asked;

  void startFilterWithCompletionHandler(ErrorHandler) override {}
  void stopFilterWithReason(NEProviderStopReason, const std::function<void()>&) override {}
  NewFlow handleNewFlow(const NEFilterFlow&) override {
    asked += "new ";
    return newFlow;
  }
  Data handleOutboundDataFromFlow(const NEFilterFlow&, uint64_t offset, std::span<const uint8_t> bytes) override {
    asked += std::to_string(offset) + ":" + std::string(bytes.begin(), bytes.end()) + " ";
    return data;
  }
  Data handleOutboundDataCompleteForFlow(const NEFilterFlow&) override {
    asked += "complete ";
    return complete;
  }
};

std::span<const uint8_t> bytes_of(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(FilterSession, AsksNeitherTooMuchNorAgain) {
  auto peek = [](bool outbound, uint64_t count) {
    return NewFlow::filterDataVerdictWithFilterInbound(false, 0, outbound, count);
  };
  const auto all = peek(true, kFilterFlowBytesMax);
  const Data allow = Data::allowVerdict(), drop = Data::dropVerdict();
  const struct {
    const char* fault;
    NewFlow newFlow;
    Data data, complete;
    const char* bytes;  // two chunks, parted by a bar
    const char* asked;
    State end;
    bool holds;  // after the new flow
  } kCases[] = {
      {"an allowed flow is asked about", NewFlow::allowVerdict(), drop, drop, "a|", "new ", State::Allowed, false},
      {"a dropped flow comes back", NewFlow::dropVerdict(), allow, allow, "a|", "new ", State::Dropped, false},
      {"an unfiltered side is shown", peek(false, 9), drop, drop, "a|", "new ", State::Allowed, false},
      {"a drop is reconsidered", all, drop, allow, "one|two", "new 0:one ", State::Dropped, true},
      {"an allowed flow is shown on", all, allow, drop, "one|two", "new 0:one ", State::Allowed, true},
      {"more than the peek count is shown", peek(true, 2), drop, allow, "one|", "new 0:on ", State::Dropped, true},
      {"an empty chunk counts as data", all, drop, allow, "|", "new complete ", State::Allowed, true},
      {"the end is not asked about", all, allow, drop, "|", "new complete ", State::Dropped, true},
      {"no peek shows or holds bytes", peek(true, 0), allow, drop, "one|", "new complete ", State::Dropped, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.fault);
    auto provider = Ref<ScriptedProvider>::adopt(new ScriptedProvider);
    provider->newFlow = c.newFlow;
    provider->data = c.data;
    provider->complete = c.complete;
    FilterSession session(provider, LinuxSocketFlow::create(nullptr, "host.example", 443, SOCK_STREAM));
    EXPECT_TRUE(session.holdsData());
    session.newFlow();
    EXPECT_EQ(session.holdsData(), c.holds);
    std::string_view bytes = c.bytes;
    session.outboundData(bytes_of(bytes.substr(0, bytes.find('|'))));
    session.outboundData(bytes_of(bytes.substr(bytes.find('|') + 1)));
    EXPECT_EQ(session.outboundComplete(), c.end);
    EXPECT_EQ(provider->asked, c.asked);
  }
}

NEFilterRule rule(const char* host, const char* port, NENetworkRuleProtocol protocol, NEFilterAction action,
                  uint64_t prefix = 0, NETrafficDirection direction = NETrafficDirection::Outbound) {
  return NEFilterRule::initWithNetworkRule(
      NENetworkRule::initWithRemoteNetwork(NWHostEndpoint::endpointWithHostname(host, port), prefix, nullptr, 0,
                                           protocol, direction),
      action);
}

TEST(FilterRules, FirstRuleThatMatchesDecides) {
  using Protocol = NENetworkRuleProtocol;
  using Action = NEFilterAction;
  const auto settings = NEFilterSettings::initWithRules(
      {
          rule("", "81", Protocol::Any, Action::Drop, 0, NETrafficDirection::Inbound),
          rule("", "53", Protocol::Any, Action::FilterData),
          rule("Only.Example", "80", Protocol::TCP, Action::Drop),
          rule("192.0.2.128", "80", Protocol::TCP, Action::Drop, 25),
          rule("2001:db8::", "80", Protocol::TCP, Action::Drop, 33),
          rule("198.51.100.7", "80", Protocol::TCP, Action::Drop),
          rule("", "http", Protocol::TCP, Action::FilterData),
          rule("any-port.example", "0", Protocol::TCP, Action::Drop),
      },
      Action::Allow);
  const struct {
    const char* host;
    uint16_t port;
    Protocol protocol;
    Action action;
  } kCases[] = {
      {"a.example", 53, Protocol::UDP, Action::FilterData},
      {"a.example", 53, Protocol::TCP, Action::FilterData},
      {"a.example", 80, Protocol::UDP, Action::Allow},
      {"a.example", 80, Protocol::TCP, Action::FilterData},
      {"a.example", 81, Protocol::TCP, Action::Allow},
      {"only.example", 80, Protocol::TCP, Action::Drop},
      {"192.0.2.129", 80, Protocol::TCP, Action::Drop},
      {"192.0.2.127", 80, Protocol::TCP, Action::FilterData},
      {"2001:db8:7fff::1", 80, Protocol::TCP, Action::Drop},
      {"2001:db8:8000::1", 80, Protocol::TCP, Action::FilterData},
      {"198.51.100.7", 80, Protocol::TCP, Action::Drop},
      {"198.51.100.6", 80, Protocol::TCP, Action::FilterData},
      {"any-port.example", 9, Protocol::TCP, Action::Drop},
      {"::ffff:0:0", 80, Protocol::TCP, Action::FilterData},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(action_for_outbound_flow(settings, {c.host, c.port, c.protocol}), c.action) << c.host << " " << c.port;
  }
}

}  // namespace
}  // namespace orvane

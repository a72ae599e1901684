#include <gtest/gtest.h>

#include "platform/linux/flow/FilterRules.h"

namespace orvane {
namespace {

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

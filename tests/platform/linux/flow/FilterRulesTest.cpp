#include <gtest/gtest.h>

#include <tuple>

#include "platform/linux/flow/FilterRules.h"

namespace orvane {
namespace {

using Protocol = NENetworkRuleProtocol;
using Action = NEFilterAction;
using enum NETrafficDirection;

TEST(FilterRules, MatchByDirectionProtocolPortAndNetwork) {
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
      {"any protocol", Outbound, Protocol::Any, "", "53", 0, "a.example", 53, true},
      {"inbound", Inbound, Protocol::Any, "", "53", 0, "a.example", 53, false},
      {"another protocol", Outbound, Protocol::UDP, "", "53", 0, "a.example", 53, false},
      {"a name in another case, any port", Outbound, Protocol::TCP, "Only.Example", "0", 0, "only.example", 80, true},
      {"inside of a network", Outbound, Protocol::TCP, "2001:db8::", "0", 33, "2001:db8:7fff::1", 80, true},
      {"outside of a network", Outbound, Protocol::TCP, "2001:db8::", "0", 33, "2001:db8:8000::1", 80, false},
      {"another address", Outbound, Protocol::TCP, "192.0.2.128", "0", 0, "192.0.2.129", 80, false},
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

TEST(FilterRules, CoverHTTP3WhereTheyFilterHTTPS) {
  const std::tuple<const char*, const char*, Protocol, NETrafficDirection, Action, bool> kCases[] = {
      {"HTTPS", "443", Protocol::TCP, Outbound, Action::FilterData, true},
      {"HTTPS by its service, in any direction", "https", Protocol::TCP, Any, Action::FilterData, true},
      {"HTTP", "80", Protocol::TCP, Outbound, Action::FilterData, false},
      {"any protocol", "443", Protocol::Any, Outbound, Action::FilterData, false},
      {"inbound", "443", Protocol::TCP, Inbound, Action::FilterData, false},
      {"allowed", "443", Protocol::TCP, Outbound, Action::Allow, false},
  };
  for (const auto& [name, port, protocol, direction, action, isCovered] : kCases) {
    auto rule = NENetworkRule::initWithRemoteNetwork(NWHostEndpoint::endpointWithHostname("192.0.2.0", port), 24,
                                                     nullptr, 0, protocol, direction);
    const auto settings = with_http3({{NEFilterRule::initWithNetworkRule(rule, action)}, Action::Drop});
    ASSERT_EQ(settings.rules.size(), isCovered ? 2U : 1U) << name;
    EXPECT_EQ(settings.rules.front().networkRule.protocol, protocol) << name;
    EXPECT_EQ(settings.defaultAction, Action::Drop) << name;
    if (!isCovered) continue;
    EXPECT_EQ(action_for_outbound_flow(settings, {"192.0.2.7", 443, Protocol::UDP}), Action::FilterData) << name;
  }
}

}  // namespace
}  // namespace orvane

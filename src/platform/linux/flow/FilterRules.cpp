#include "platform/linux/flow/FilterRules.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace orvane {
namespace {

// An IPv6 address, or an IPv4 address mapped into IPv6 (RFC 4291, section 2.5.5.2).
struct Address {
  std::array<uint8_t, 16> bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  uint64_t prefixOffset = 0;  // leading bits that a rule's prefix does not count: 96 for IPv4, else 0
};

std::optional<Address> parse_address(const std::string& text) {
  Address address;
  if (inet_pton(AF_INET, text.c_str(), &address.bytes[12]) == 1) {
    address.prefixOffset = 96;
    return address;
  }
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) return address;
  return std::nullopt;
}

bool network_contains(const Address& network, uint64_t prefix, const Address& address) {
  if (network.prefixOffset != address.prefixOffset) return false;
  uint64_t bits = prefix == 0 ? 128 : std::min<uint64_t>(network.prefixOffset + prefix, 128);
  for (size_t i = 0; i < 16 && i * 8 < bits; ++i) {
    uint64_t left = bits - i * 8;
    unsigned mask = left >= 8 ? 0xffU : 0xffU << (8 - left) & 0xffU;
    if (((network.bytes[i] ^ address.bytes[i]) & mask) != 0) return false;
  }
  return true;
}

bool host_matches(const std::string& ruleHost, uint64_t prefix, const std::string& host) {
  if (ruleHost.empty()) return true;
  auto network = parse_address(ruleHost);
  auto address = parse_address(host);
  if (network && address) return network_contains(*network, prefix, *address);
  return !network && !address && strcasecmp(ruleHost.c_str(), host.c_str()) == 0;
}

bool port_matches(const std::string& rulePort, const RemoteEnd& remote) {
  auto number = port_number(rulePort, remote.protocol);
  return number && (*number == 0 || *number == remote.port);
}

bool rule_matches(const NENetworkRule& rule, const RemoteEnd& remote) {
  if (rule.direction == NETrafficDirection::Inbound) return false;
  if (rule.protocol != NENetworkRuleProtocol::Any && rule.protocol != remote.protocol) return false;
  if (rule.localNetwork != nullptr && !rule.localNetwork->hostname().empty()) return false;
  if (rule.remoteNetwork == nullptr) return true;
  return port_matches(rule.remoteNetwork->port(), remote) &&
         host_matches(rule.remoteNetwork->hostname(), rule.remotePrefix, remote.host);
}

}  // namespace

std::optional<uint16_t> port_number(const std::string& port, NENetworkRuleProtocol protocol) {
  uint16_t number = 0;
  const char* end = port.data() + port.size();
  auto [stop, error] = std::from_chars(port.data(), end, number);
  if (error == std::errc() && stop == end) return number;

  servent entry{};
  servent* found = nullptr;
  char storage[1024];
  const char* name = protocol == NENetworkRuleProtocol::UDP ? "udp" : "tcp";
  getservbyname_r(port.c_str(), name, &entry, storage, sizeof storage, &found);
  if (found == nullptr) return std::nullopt;
  return ntohs(static_cast<uint16_t>(found->s_port));
}

NEFilterSettings with_http3(const NEFilterSettings& settings) {
  constexpr uint16_t kHTTPSPort = 443;
  NEFilterSettings more{{}, settings.defaultAction};
  for (const NEFilterRule& rule : settings.rules) {
    more.rules.push_back(rule);
    const NENetworkRule& match = rule.networkRule;
    if (rule.action != NEFilterAction::FilterData || match.protocol != NENetworkRuleProtocol::TCP ||
        match.direction == NETrafficDirection::Inbound || match.remoteNetwork == nullptr ||
        port_number(match.remoteNetwork->port(), match.protocol) != kHTTPSPort) {
      continue;
    }
    more.rules.push_back(rule);
    more.rules.back().networkRule.protocol = NENetworkRuleProtocol::UDP;
  }
  return more;
}

NEFilterAction action_for_outbound_flow(const NEFilterSettings& settings, const RemoteEnd& remote) {
  for (const NEFilterRule& rule : settings.rules) {
    if (rule_matches(rule.networkRule, remote)) return rule.action;
  }
  return settings.defaultAction;
}

}  // namespace orvane

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// The remote endpoint of an outbound flow that has not been opened yet.
struct RemoteEnd {
  std::string host;  // a name, or a literal address without brackets
  uint16_t port;
  NENetworkRuleProtocol protocol;  // TCP or UDP
};

// Returns the number of a rule's port; 0 means any port. `port` is a number or the name of a service (services(5)), and
// `protocol` is TCP or UDP. Returns nothing if `protocol` has no service with this name. Thread-safe.
std::optional<uint16_t> port_number(const std::string& port, NENetworkRuleProtocol protocol);

// Returns the settings with more rules, for HTTP/3: after each rule that filters the data of outbound TCP flows to port
// 443, the result has a rule that does the same for UDP. Thread-safe.
NEFilterSettings with_http3(const NEFilterSettings& settings);

// The action of the first rule that matches an outbound flow, or else the default action.
//
// If a rule's remote host is an address, the rule matches the literal addresses that have the same first bits;
// remotePrefix is the number of these bits, and 0 means all bits. If the remote host is a name, the rule matches this
// name in upper or lower case. A rule with a local address never matches, because the flow's local address is not known
// yet. Thread-safe.
NEFilterAction action_for_outbound_flow(const NEFilterSettings& settings, const RemoteEnd& remote);

}  // namespace orvane

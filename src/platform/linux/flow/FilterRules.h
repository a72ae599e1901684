#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// The remote end of an outbound flow that has not been opened yet.
struct RemoteEnd {
  std::string host;  // a name, or a literal address without brackets
  uint16_t port;
  NENetworkRuleProtocol protocol;  // TCP or UDP
};

// The number of a rule's port, which is a number or the name of a service (services(5)); 0 means any port. Nothing for
// a service that the protocol, TCP or UDP, does not have. Thread-safe.
std::optional<uint16_t> port_number(const std::string& port, NENetworkRuleProtocol protocol);

// The action of the first rule that matches an outbound flow, or else the default action.
//
// A rule with a network matches literal addresses in it (an address with a prefix of 0 matches only itself). A rule
// with a host name matches that name in either case. A rule with a local network never matches, because the local
// address is not known yet. Thread-safe.
NEFilterAction action_for_outbound_flow(const NEFilterSettings& settings, const RemoteEnd& remote);

}  // namespace orvane

#pragma once

#include <cstdint>
#include <string>

#include "platform/NetworkExtension.h"

namespace orvane {

// The far end of an outbound flow, as far as it is known when the flow begins.
struct RemoteEnd {
  std::string host;  // a name, or a literal address without brackets
  uint16_t port;
  NENetworkRuleProtocol protocol;  // TCP or UDP
};

// What the settings say about an outbound flow: the action of the first rule that matches, or the default action.
//
// A rule that names a network matches literal addresses within it (a prefix of 0 with an address is that one address);
// a rule that names a host matches that name, without regard to case. Neither matches the other kind of far end, as a
// name has no address yet. A rule about a local network is about an address that is not known here, and never matches.
// Port 0 is any port.
NEFilterAction action_for_outbound_flow(const NEFilterSettings& settings, const RemoteEnd& remote);

}  // namespace orvane

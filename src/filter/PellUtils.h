#pragma once

#include <cstdint>

#include "platform/NetworkExtension.h"

// Properties that the providers read from flows of any kind.
namespace orvane {

// The flow as a socket flow. Null when it is not a socket flow.
const NEFilterSocketFlow* socketFlow(const NEFilterFlow& flow);
bool isSocketFlow(const NEFilterFlow& flow);

// The port of the flow's remote endpoint, converted by integerValue(). 0 if the flow is not a socket flow, or if its
// remote endpoint is not a host. The number is not checked against the range of ports: "-1" gives 2^64-1.
uint64_t port(const NEFilterFlow& flow);

}  // namespace orvane

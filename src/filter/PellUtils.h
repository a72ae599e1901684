#pragma once

#include <cstdint>

#include "platform/NetworkExtension.h"

// Properties that the providers read from any flow.
namespace orvane {

// The flow itself, or null when it is not a socket flow.
const NEFilterSocketFlow* socketFlow(const NEFilterFlow& flow);
bool isSocketFlow(const NEFilterFlow& flow);

// The remote port of a socket flow to a host endpoint, read by integerValue(); else 0. The number is not checked
// against the range of ports: "-1" gives 2^64-1.
uint64_t port(const NEFilterFlow& flow);

}  // namespace orvane

#pragma once

#include "platform/NetworkExtension.h"

@class NEFilterFlow;

namespace orvane {

// Wraps the framework's flow for the core. The wrapper retains the flow, and reads a property each time the core asks
// for it.
Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow);

}  // namespace orvane

#pragma once

#include "platform/NetworkExtension.h"

@class NEFilterFlow;

namespace orvane {

// Wraps the framework's flow for the core. Retains it and reads each property when the core asks.
Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow);

}  // namespace orvane

#pragma once

#include "platform/NetworkExtension.h"

@class NEFilterFlow;

namespace orvane {

// Wraps the framework's flow for the core. The wrapper retains the flow, and reads a property each time the core asks
// for it. If the framework has no host name for the flow, the flow's name is `name`.
Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow, std::optional<std::string> name = std::nullopt);

}  // namespace orvane

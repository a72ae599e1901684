#pragma once

#include <optional>
#include <string>

#include "platform/NetworkExtension.h"

@class NEFilterFlow;

namespace orvane {

// Wraps the framework's flow for the core. The wrapper retains the flow, and reads a property each time the core asks
// for it. If the framework has no host name for the flow, the flow's name is `name`. If there is an `alias`, the core
// sees the flow under this name.
Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow, std::optional<std::string> name = std::nullopt,
                          std::optional<std::string> alias = std::nullopt);

// The flow's host name: the one that the framework has, as the program wrote it, or `name`.
std::optional<std::string> host_of(::NEFilterFlow* flow, const std::optional<std::string>& name);

}  // namespace orvane

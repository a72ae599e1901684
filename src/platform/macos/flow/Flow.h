#pragma once

#include "platform/NetworkExtension.h"

@class NEFilterFlow;

namespace orvane {

// A flow as the framework gave it, which is kept and not copied: each question goes to it when it is asked.
Ref<NEFilterFlow> flow_of(::NEFilterFlow* flow);

}  // namespace orvane

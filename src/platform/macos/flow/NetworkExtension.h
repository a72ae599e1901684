#pragma once

#include <vector>

#include "platform/NetworkExtension.h"

@class NEFilterDataVerdict;
@class NEFilterNewFlowVerdict;
@class NSArray;

// What the core answers, as the framework's objects. Autoreleased.
namespace orvane {

::NEFilterNewFlowVerdict* verdict_object(const NEFilterNewFlowVerdict& verdict);
::NEFilterDataVerdict* verdict_object(const NEFilterDataVerdict& verdict);
::NSArray* rule_objects(const std::vector<NEFilterRule>& rules);

}  // namespace orvane

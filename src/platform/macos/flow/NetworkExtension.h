#pragma once

#include <vector>

#include "platform/NetworkExtension.h"

@class NEFilterDataVerdict;
@class NEFilterNewFlowVerdict;
@class NSArray;

// Converts the core's verdicts and rules to autoreleased objects of the framework.
namespace orvane {

::NEFilterNewFlowVerdict* verdict_object(const NEFilterNewFlowVerdict& verdict);
::NEFilterDataVerdict* verdict_object(const NEFilterDataVerdict& verdict);
::NSArray* rule_objects(const std::vector<NEFilterRule>& rules);

}  // namespace orvane

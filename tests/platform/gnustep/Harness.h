#pragma once

#include <functional>
#include <string>

namespace orvane {

// Runs `body` twice, and lists by class how many objects its second run leaves alive: "NSObject +1, ...". (The first
// run also makes objects that are made once and kept.) Counts Objective-C's classes and our own, after the run's
// autorelease pool is drained, or before that if `afterDrain` is false.
std::string leaked_objects(const std::function<void()>& body, bool afterDrain = true);

}  // namespace orvane

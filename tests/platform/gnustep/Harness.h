#pragma once

#include <functional>
#include <string>

namespace orvane {

// Runs `body`, and lists by class how many objects it leaves alive: "NSObject +1, ...". The list covers Objective-C's
// classes and our own. Counts the objects after the run's autorelease pool is drained, or before that if `afterDrain`
// is false. Runs `body` twice and counts in the second run only, because the first run also makes objects that are made
// once and kept.
std::string leaked_objects(const std::function<void()>& body, bool afterDrain = true);

}  // namespace orvane

#pragma once

#include <functional>
#include <string>

namespace orvane {

// Runs `body`, and lists the objects that it leaves alive, of Objective-C's and of our own classes: "NSObject +1, ...".
// Counts them after the autorelease pool of the run is drained, or before that if `afterDrain` is false. Runs `body`
// twice and counts in the second run only, because the first run also makes objects that are made once and kept.
std::string leaked_objects(const std::function<void()>& body, bool afterDrain = true);

}  // namespace orvane

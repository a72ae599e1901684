#pragma once

#include <functional>
#include <string>

namespace orvane {

// The objects that one run of `body` leaves alive, of Objective-C's classes and of our own: "NSObject +1, ...". Counts
// them after the run's autorelease pool is drained, or before. `body` runs once before that, to make the objects that
// are made on first use and kept.
std::string leaked_objects(const std::function<void()>& body, bool afterDrain = true);

}  // namespace orvane

#pragma once

#include <functional>
#include <string>

namespace orvane {

// The objects that one run of `body` leaves alive, of Objective-C's classes and of our own: "NSObject +1, ...". They
// are counted after its autorelease pool is drained, or before. A first run, not counted, creates what is kept for
// ever.
std::string leaked_objects(const std::function<void()>& body, bool afterDrain = true);

}  // namespace orvane

#pragma once

#include <functional>
#include <string>

namespace orvane {

// What one run of `body`, in a pool that is drained or not yet, leaves alive that was not there before: by class,
// Objective-C's and our own, "NSObject +1, ...". It runs once beforehand, for whatever is made at a first use and kept.
std::string left_alive(const std::function<void()>& body, bool drained = true);

}  // namespace orvane

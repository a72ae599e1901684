#pragma once

#include "platform/Object.h"

namespace orvane {

// Sets the Objective-C object that the system sees in place of a C++ object. Both objects share one monitor, so code
// that holds the monitor in one language also excludes code in the other language. Retains the Objective-C object and
// borrows the C++ object until the process ends. Call this once for each C++ object, before another thread uses the
// monitor. Thread-safe.
void set_counterpart(const NSObject* object, void* objectiveC);

// The Objective-C object that was set for a C++ object; null when none was set.
void* counterpart(const NSObject* object);

}  // namespace orvane

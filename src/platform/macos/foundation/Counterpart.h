#pragma once

#include "platform/Object.h"

namespace orvane {

// Sets the Objective-C object that represents a C++ object to the system. Both have one monitor, so code in either
// language excludes the other. Retains the Objective-C object and borrows the C++ object until the process ends. Call
// it once, before another thread uses the C++ object's monitor. Thread-safe.
void set_counterpart(const NSObject* object, void* objectiveC);

// Null when there is none.
void* counterpart(const NSObject* object);

}  // namespace orvane

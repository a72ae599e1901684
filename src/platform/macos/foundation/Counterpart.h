#pragma once

#include "platform/Object.h"

namespace orvane {

// The Objective-C object that stands for a C++ object towards the system. Its monitor is the C++ object's, so that both
// sides exclude each other. It is retained, and the C++ object borrowed, for as long as the process lives. To be set
// once, before another thread knows the C++ object. Thread-safe.
void set_counterpart(const NSObject* object, void* objectiveC);

// Null when there is none.
void* counterpart(const NSObject* object);

}  // namespace orvane

#include "platform/Object.h"

namespace orvane {

NSObject::NSObject() = default;
NSObject::~NSObject() = default;

bool NSObject::initialise() { return true; }

void retain(const NSObject* object) { object->references_.fetch_add(1, std::memory_order_relaxed); }

void release(const NSObject* object) {
  if (object->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete object;
}

}  // namespace orvane

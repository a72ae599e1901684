#include "platform/Object.h"

#include "platform/StandIn.h"

namespace orvane {

NSObject::NSObject() { ++stand_in::aliveObjects; }
NSObject::~NSObject() { --stand_in::aliveObjects; }

bool NSObject::initialise() { return !std::exchange(stand_in::nextInitialiserFails, false); }

void retain(const NSObject* object) { ++object->references_; }
void release(const NSObject* object) {
  if (--object->references_ == 0) delete object;
}

}  // namespace orvane

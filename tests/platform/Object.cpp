#include "platform/Object.h"

#include "platform/StandIn.h"

namespace orvane {

namespace {

std::atomic<int> objects{0};

}  // namespace

bool stand_in::nextInitialiserFails = false;

int stand_in::alive_objects() { return objects; }

NSObject::NSObject() { ++objects; }
NSObject::~NSObject() { --objects; }

bool NSObject::initialise() { return !std::exchange(stand_in::nextInitialiserFails, false); }

void retain(const NSObject* object) { ++object->references_; }

void release(const NSObject* object) {
  if (--object->references_ == 0) delete object;
}

}  // namespace orvane

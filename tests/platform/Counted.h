#pragma once

#include <atomic>

#include "platform/StandIn.h"

namespace orvane::stand_in {

// An object that is counted among those alive.
struct Counted {
  explicit Counted(const char* kindName) : kind(kindName) { born(kind); }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { died(kind); }

  const char* kind;
  mutable std::atomic<int> references{1};
};

}  // namespace orvane::stand_in

// The two functions of a counted type.
#define ORVANE_STAND_IN_COUNTED(Type)                       \
  void retain(const Type* object) { ++object->references; } \
  void release(const Type* object) {                        \
    if (--object->references == 0) delete object;           \
  }

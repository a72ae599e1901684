#pragma once

#include <atomic>
#include <cstddef>

#include "platform/Ref.h"

namespace orvane {

// The base class of the objects that the extension and the platform exchange. Reference-counted, with a thread-safe
// count. A new object has one reference, which its creator owns (see Ref::adopt).
class NSObject {
 public:
  NSObject(const NSObject&) = delete;
  NSObject& operator=(const NSObject&) = delete;

  // The base initialiser. Run it once, right after construction. If it returns false, release the object without using
  // it.
  bool initialise();

  friend void retain(const NSObject* object);
  friend void release(const NSObject* object);

 protected:
  NSObject();
  virtual ~NSObject();

 private:
  mutable std::atomic<size_t> references_{1};
};

}  // namespace orvane

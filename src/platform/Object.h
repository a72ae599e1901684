#pragma once

#include <atomic>
#include <cstddef>

#include "platform/Ref.h"

namespace orvane {

// The root of the classes that the extension and the platform hand to each other. Counted; a new object has one
// reference, which belongs to whoever made it (see Ref::adopt). Counting is thread-safe.
class NSObject {
 public:
  NSObject(const NSObject&) = delete;
  NSObject& operator=(const NSObject&) = delete;

  // The base initialiser, run once for each object right after it was made. False stands for an initialiser that gave
  // nil: the object must then be released unused.
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

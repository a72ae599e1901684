#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

namespace orvane {

// Owns what a CoreFoundation function with "Create" or "Copy" in its name returned, and releases it at the end of the
// scope. `T` is the type of the reference, such as CFStringRef.
template <class T>
class Owned {
 public:
  Owned() = default;
  explicit Owned(T object) : object_(object) {}
  Owned(const Owned&) = delete;
  ~Owned() {
    if (object_ != nullptr) CFRelease(object_);
  }
  Owned& operator=(const Owned&) = delete;

  T get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  // For functions with an output parameter. Call it only while this object is empty.
  T* out() { return &object_; }

 private:
  T object_ = nullptr;
};

// Empty when the text is no URL.
Owned<CFURLRef> url_create(const std::string& text);

// The platform's headers declare some types without defining them, such as Bundle. On macOS the objects of these types
// are the system's own. to_native() turns our pointer into the system's, and from_native() turns the system's pointer
// into ours.
template <class T, class Opaque>
T to_native(const Opaque* object) {
  return reinterpret_cast<T>(const_cast<Opaque*>(object));
}

template <class Opaque>
Opaque* from_native(const void* object) {
  return static_cast<Opaque*>(const_cast<void*>(object));
}

}  // namespace orvane

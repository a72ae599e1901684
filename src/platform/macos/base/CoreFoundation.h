#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

namespace orvane {

// A CoreFoundation object that its maker owns: what a function with "Create" or "Copy" in its name returns. Released at
// the end of the scope. `T` is the type of the reference, such as CFStringRef.
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
  // For a function that answers through an output. For an empty one only.
  T* out() { return &object_; }

 private:
  T object_ = nullptr;
};

// Empty when the text is no URL.
Owned<CFURLRef> url_create(const std::string& text);

// The types that the platform's headers leave open are the system's own objects, under names of ours.
template <class T, class Ours>
T native(const Ours* object) {
  return reinterpret_cast<T>(const_cast<Ours*>(object));
}

template <class Ours>
Ours* ours(const void* object) {
  return static_cast<Ours*>(const_cast<void*>(object));
}

}  // namespace orvane

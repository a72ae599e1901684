#pragma once

namespace orvane {

// Keeps an Objective-C object (or nil) retained. For members of C++ classes, and for variables that a block captures.
template <class T>
class Retained {
 public:
  explicit Retained(T* object) : object_([object retain]) {}
  Retained(const Retained& other) : Retained(other.object_) {}
  ~Retained() { [object_ release]; }
  Retained& operator=(const Retained&) = delete;

  T* get() const { return object_; }

 private:
  T* object_;
};

}  // namespace orvane

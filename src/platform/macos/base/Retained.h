#pragma once

namespace orvane {

// Retains an Objective-C object (or nil) for a C++ object or a block.
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

#pragma once

#include <cstddef>
#include <utility>

namespace orvane {

// A counted reference to an object of the platform.
//
// Every counted type T has two functions in its own namespace, `retain(const T*)` and `release(const T*)`. What a
// function with "create" or "copy" in its name returns is owned by the caller and already inside a Ref; what a function
// with "get" in its name returns is borrowed. A Ref releases at the end of its scope. The few references that are never
// given back on purpose say so with detach().
//
// Assignment stores the new object before it releases the old one, so that whoever looks at a shared reference while
// the old object is being destroyed already finds the new one.
template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  Ref(const Ref& other) : object_(other.object_) {
    if (object_ != nullptr) retain(object_);
  }
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  Ref(const Ref<U>& other) : Ref(retained(other.get())) {}
  template <class U>
  Ref(Ref<U>&& other) noexcept : object_(other.detach()) {}
  ~Ref() {
    if (object_ != nullptr) release(object_);
  }

  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  // Takes over a reference that the caller owns.
  static Ref adopt(T* object) {
    Ref reference;
    reference.object_ = object;
    return reference;
  }

  // Adds a reference to an object that the caller has borrowed.
  static Ref retained(T* object) {
    if (object != nullptr) retain(object);
    return adopt(object);
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  // Gives the reference up without releasing it.
  T* detach() noexcept { return std::exchange(object_, nullptr); }

  // For a function that answers through an output: the place to write an owned object to. Empties the reference first.
  T** out() {
    *this = Ref();
    return &object_;
  }

  friend bool operator==(const Ref& left, const Ref& right) { return left.object_ == right.object_; }
  friend bool operator==(const Ref& left, std::nullptr_t) { return left.object_ == nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace orvane

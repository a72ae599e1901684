#pragma once

#include <cstddef>
#include <utility>

namespace orvane {

// Owns one reference to a reference-counted object, and releases it at the end of its scope.
//
// Every reference-counted type T has two functions in its namespace, `retain(const T*)` and `release(const T*)`. A
// function with "create" or "copy" in its name returns a Ref, which the caller owns; a function with "get" in its name
// returns a borrowed pointer. The few references that must never be released are given up with detach().
//
// Assignment stores the new object before it releases the old one, so the old object's destructor already sees the new
// object.
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

  // Takes ownership of the caller's reference.
  static Ref adopt(T* object) {
    Ref reference;
    reference.object_ = object;
    return reference;
  }

  // Adds a reference to a borrowed object.
  static Ref retained(T* object) {
    if (object != nullptr) retain(object);
    return adopt(object);
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  // Returns the object without releasing the reference, and leaves this Ref empty.
  T* detach() noexcept { return std::exchange(object_, nullptr); }

  // For a function that stores an owned object at an address. Releases the present object, and returns the address of
  // this Ref's pointer, which is then null.
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

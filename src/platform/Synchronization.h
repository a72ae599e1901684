#pragma once

#include <pthread.h>

#include "platform/Object.h"

namespace orvane {

// A recursive mutex, for use as a static variable: the mutex is never destroyed. Before initialise(), lock() and
// unlock() do nothing and return 0: the process starts with one thread, so it needs no lock yet.
class RecursiveMutex {
 public:
  constexpr RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  // From this call on, lock() and unlock() work. No other thread may use the mutex during the call. A second call does
  // nothing. All three functions return 0 or an error number, as pthread_mutex_lock(3) does.
  int initialise();
  int lock();
  int unlock();

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  bool initialised_ = false;
};

// Holds the recursive monitor of an object for a scope (macOS: objc_sync_enter and objc_sync_exit). Objects have no
// member for their monitor: a monitor exists while a thread holds it or waits for it.
class ObjectMonitor {
 public:
  explicit ObjectMonitor(const NSObject* object);
  ~ObjectMonitor();
  ObjectMonitor(const ObjectMonitor&) = delete;
  ObjectMonitor& operator=(const ObjectMonitor&) = delete;

 private:
  const NSObject* object_;
};

// A recursive lock as an object. The extension declares such a lock but never creates it (docs/compatibility.md), so
// the class has no operations.
class NSRecursiveLock : public NSObject {};

}  // namespace orvane

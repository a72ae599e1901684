#pragma once

#include <pthread.h>

#include "platform/Object.h"

namespace orvane {

// A recursive mutex that is valid from its static initialisation: until initialise() has run, locking and unlocking do
// nothing and succeed, for a start-up that is still on one thread. Never destroyed.
class RecursiveMutex {
 public:
  constexpr RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  // Makes the mutex a working one; again on a working one, does nothing. No other thread may use it meanwhile.
  // Statuses are those of pthread_mutex_lock(3): 0 for success.
  int initialise();
  int lock();
  int unlock();

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  bool initialised_ = false;
};

// The recursive monitor that belongs to an object, held for the life of this value (macOS: objc_sync_enter and
// objc_sync_exit). Objects carry no room for it: monitors exist while somebody holds or awaits them.
class ObjectMonitor {
 public:
  explicit ObjectMonitor(const NSObject* object);
  ~ObjectMonitor();
  ObjectMonitor(const ObjectMonitor&) = delete;
  ObjectMonitor& operator=(const ObjectMonitor&) = delete;

 private:
  const NSObject* object_;
};

// A recursive lock that is an object.
class NSRecursiveLock : public NSObject {
 public:
  NSRecursiveLock() { mutex_.initialise(); }

  void lock();
  void unlock();

 private:
  RecursiveMutex mutex_;
};

}  // namespace orvane

#include "platform/Synchronization.h"

#include <mutex>

#include "platform/StandIn.h"

namespace orvane {

static std::recursive_mutex& monitor_of(const NSObject* object) {
  static std::mutex mutex;
  static std::map<const NSObject*, std::recursive_mutex> monitors;
  std::lock_guard lock(mutex);
  return monitors[object];
}

int RecursiveMutex::initialise() {
  stand_in::trace("mutex initialised");
  if (initialised_) return 0;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  initialised_ = true;
  return pthread_mutex_init(&mutex_, &attributes);
}

int RecursiveMutex::lock() {
  if (!initialised_) return 0;
  ++stand_in::mutexLocks;
  stand_in::heldLocks += '+';
  return pthread_mutex_lock(&mutex_);
}

int RecursiveMutex::unlock() {
  if (!initialised_) return 0;
  stand_in::heldLocks.pop_back();
  pthread_mutex_unlock(&mutex_);
  return stand_in::nextUnlockStatus.exchange(0);
}

ObjectMonitor::ObjectMonitor(const NSObject* object) : object_(object) {
  stand_in::heldLocks += '@';
  monitor_of(object).lock();
}

ObjectMonitor::~ObjectMonitor() {
  stand_in::heldLocks.pop_back();
  monitor_of(object_).unlock();
}

}  // namespace orvane

#include "platform/Synchronization.h"

#include <mutex>

#include "platform/StandIn.h"

namespace orvane {

int stand_in::nextUnlockStatus = 0;

namespace {

std::recursive_mutex everyMonitor;

}  // namespace

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
  ++stand_in::mutexes_held();
  return pthread_mutex_lock(&mutex_);
}

int RecursiveMutex::unlock() {
  if (!initialised_) return 0;
  --stand_in::mutexes_held();
  pthread_mutex_unlock(&mutex_);
  return std::exchange(stand_in::nextUnlockStatus, 0);
}

// One for all objects: a test that passes with it says nothing less.
ObjectMonitor::ObjectMonitor(const NSObject* object) : object_(object) {
  // The control object's monitor is taken before the database's mutex, never after it.
  if (stand_in::mutexes_held() > 0) stand_in::trace("WRONG ORDER: a monitor while a mutex is held");
  everyMonitor.lock();
}

ObjectMonitor::~ObjectMonitor() { everyMonitor.unlock(); }

void NSRecursiveLock::lock() { mutex_.lock(); }
void NSRecursiveLock::unlock() { mutex_.unlock(); }

}  // namespace orvane

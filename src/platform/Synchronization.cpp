#include "platform/Synchronization.h"

#include <cstddef>
#include <mutex>
#include <unordered_map>

namespace orvane {

int RecursiveMutex::initialise() {
  if (initialised_) return 0;
  pthread_mutexattr_t attributes;
  int status = pthread_mutexattr_init(&attributes);
  if (status != 0) return status;
  status = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (status == 0) status = pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
  initialised_ = status == 0;
  return status;
}

int RecursiveMutex::lock() { return initialised_ ? pthread_mutex_lock(&mutex_) : 0; }

int RecursiveMutex::unlock() { return initialised_ ? pthread_mutex_unlock(&mutex_) : 0; }

namespace {

struct Monitor {
  std::recursive_mutex mutex;
  size_t users = 0;  // ObjectMonitor values that hold or await it
};

// One entry for each object that is in use as a monitor: two objects never share one, so a thread that holds one
// object's monitor cannot wait for itself, or for a stranger, at another's.
struct MonitorTable {
  std::mutex mutex;
  std::unordered_map<const NSObject*, Monitor> monitors;  // an entry stays in its place while others come and go
};

// Never destroyed: other threads may still hold monitors while the process ends.
MonitorTable& table() {
  static auto* shared = new MonitorTable;
  return *shared;
}

}  // namespace

ObjectMonitor::ObjectMonitor(const NSObject* object) : object_(object) {
  if (object_ == nullptr) return;
  Monitor* monitor = nullptr;
  {
    std::lock_guard guard(table().mutex);
    monitor = &table().monitors[object_];
    ++monitor->users;
  }
  monitor->mutex.lock();
}

ObjectMonitor::~ObjectMonitor() {
  if (object_ == nullptr) return;
  std::lock_guard guard(table().mutex);
  auto entry = table().monitors.find(object_);
  entry->second.mutex.unlock();
  if (--entry->second.users == 0) table().monitors.erase(entry);
}

void NSRecursiveLock::lock() { mutex_.lock(); }

void NSRecursiveLock::unlock() { mutex_.unlock(); }

}  // namespace orvane

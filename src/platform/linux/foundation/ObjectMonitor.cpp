#include <cstddef>
#include <mutex>
#include <unordered_map>

#include "platform/Synchronization.h"

namespace orvane {
namespace {

struct Monitor {
  std::recursive_mutex mutex;
  size_t users = 0;  // ObjectMonitors that hold the mutex or wait for it
};

// One entry for each object whose monitor is in use. A fixed array of mutexes, indexed by a hash of the object's
// address, would let two objects share a mutex. Then a thread that holds one object's monitor and takes another's could
// deadlock with an unrelated thread.
struct MonitorTable {
  std::mutex mutex;
  std::unordered_map<const NSObject*, Monitor> monitors;  // the address of an entry never changes
};

// The table is never destroyed, because threads may hold monitors while the process exits.
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

}  // namespace orvane

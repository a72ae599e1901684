#include <cstddef>
#include <mutex>
#include <unordered_map>

#include "platform/Synchronization.h"

namespace orvane {
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

}  // namespace orvane

#import <Foundation/Foundation.h>
#include <objc/objc-sync.h>

#include <cstddef>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/Synchronization.h"
#include "platform/macos/foundation/Counterpart.h"

namespace orvane {

namespace {

// The Objective-C object whose monitor serves as the monitor of a C++ object: the counterpart of the C++ object, or an
// object that exists only while the monitor is in use.
struct Monitor {
  id object = nil;
  size_t users = 0;  // ObjectMonitors that hold or await the monitor, plus one if `object` is a counterpart
  bool isCounterpart = false;
};

struct MonitorTable {
  std::mutex mutex;
  std::unordered_map<const NSObject*, Monitor> monitors;
};

// The table is never destroyed, because other threads may still hold monitors while the process ends.
MonitorTable& table() {
  static auto* shared = new MonitorTable;
  return *shared;
}

}  // namespace

void set_counterpart(const NSObject* object, void* objectiveC) {
  id retained = [static_cast<id>(objectiveC) retain];
  std::lock_guard guard(table().mutex);
  table().monitors[object] = {retained, 1, true};
}

void* counterpart(const NSObject* object) {
  std::lock_guard guard(table().mutex);
  auto entry = table().monitors.find(object);
  return entry != table().monitors.end() && entry->second.isCounterpart ? entry->second.object : nil;
}

ObjectMonitor::ObjectMonitor(const NSObject* object) : object_(object) {
  if (object_ == nullptr) return;
  std::unique_lock lock(table().mutex);
  Monitor* entry = &table().monitors[object_];  // keeps its address when entries are added or erased
  ++entry->users;
  id spare = nil;
  if (entry->object == nil) {
    lock.unlock();
    spare = [[::NSObject alloc] init];
    lock.lock();
    if (entry->object == nil) std::swap(entry->object, spare);  // unless another thread was first
  }
  id monitor = entry->object;
  lock.unlock();
  [spare release];
  objc_sync_enter(monitor);
}

// The Objective-C runtime takes locks of its own. The table's lock is released during calls of the runtime, so that no
// thread waits for a lock of the runtime while it holds the table's lock.
ObjectMonitor::~ObjectMonitor() {
  if (object_ == nullptr) return;
  std::unique_lock lock(table().mutex);
  Monitor& entry = table().monitors[object_];
  id monitor = entry.object;
  lock.unlock();
  objc_sync_exit(monitor);
  lock.lock();
  if (--entry.users != 0) return;
  table().monitors.erase(object_);
  lock.unlock();
  [monitor release];
}

}  // namespace orvane

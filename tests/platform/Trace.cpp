#include <mutex>

#include "platform/StandIn.h"

namespace orvane::stand_in {

namespace {

// These three variables are never destroyed, because objects that live until the process exits use them. `objects` has
// a pointer to each live object, so leak checkers do not report an object that is never released.
auto& mutex = *new std::recursive_mutex;
auto& lines = *new std::string;
auto& objects = *new std::map<std::string, std::set<const Counted*>>;

}  // namespace

void trace(const std::string& line) {
  std::lock_guard lock(mutex);
  lines += (lines.empty() ? "" : " | ") + line;
}

std::string take_trace() {
  std::lock_guard lock(mutex);
  return std::exchange(lines, "");
}

int alive(const std::string& kind) {
  std::lock_guard lock(mutex);
  return static_cast<int>(objects[kind].size());
}

Counted::Counted(const char* kindName) : kind(kindName) {
  std::lock_guard lock(mutex);
  objects[kind].insert(this);
}

Counted::~Counted() {
  std::lock_guard lock(mutex);
  objects[kind].erase(this);
  trace(std::string("release ") + kind);
}

void reset() {
  take_trace();
  log = {};
  files = {};
  security = {};
  dns = {};
  filter = {};
  listener = {};
}

}  // namespace orvane::stand_in

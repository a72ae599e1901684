#include <mutex>

#include "platform/StandIn.h"

namespace orvane::stand_in {

namespace {

// Never destroyed: objects that live until the process exits use them. They also keep the objects that are never
// released reachable, so that leak checkers do not report those.
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

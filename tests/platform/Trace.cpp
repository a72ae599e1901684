#include "platform/StandIn.h"

namespace orvane::stand_in {

namespace {

// Never destroyed: handles that live until the process ends are still released into it.
auto& mutex = *new std::mutex;
auto& lines = *new std::vector<std::string>;
auto& counts = *new std::map<std::string, int>;

}  // namespace

void trace(const std::string& line) {
  std::lock_guard lock(mutex);
  lines.push_back(line);
}

std::vector<std::string> take_trace() {
  std::lock_guard lock(mutex);
  return std::exchange(lines, {});
}

int alive(const std::string& kind) {
  std::lock_guard lock(mutex);
  return counts[kind];
}

int& mutexes_held() {
  thread_local int count = 0;
  return count;
}

void born(const std::string& kind) {
  std::lock_guard lock(mutex);
  ++counts[kind];
}

void died(const std::string& kind) {
  std::lock_guard lock(mutex);
  --counts[kind];
  lines.push_back("release " + kind);
}

}  // namespace orvane::stand_in

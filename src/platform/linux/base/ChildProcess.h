#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

#include "platform/files/Descriptor.h"

namespace orvane {

// A child process that runs a function of this program. Not thread-safe.
class ChildProcess {
 public:
  // Forks. The child has its own session, so that signals from the terminal do not reach it, and ignores SIGTERM, which
  // a service manager sends to all processes of a service. It closes all descriptors except `kept`: otherwise a file
  // would stay open in the child after the parent has closed it. Then it calls `run`, and ends. The parent has threads,
  // so `run` must call nothing that takes a lock or allocates memory. Returns false and sets errno on failure.
  bool start(const char* name, std::vector<int> kept, const std::function<void()>& run);

  // A descriptor for poll(2), readable when the child has ended.
  int descriptor() const { return descriptor_.get(); }

  // Returns true once, when the child has ended.
  bool hasEnded();

  void kill();
  // Waits until the child has ended.
  void wait();

 private:
  pid_t process_ = -1;
  Descriptor descriptor_;
};

}  // namespace orvane

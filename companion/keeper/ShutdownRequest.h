#pragma once

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// SIGTERM, SIGINT and SIGHUP for a program with one thread, which ends soon whatever it is at: a loop sees the request
// on a descriptor, and work that may take long, or for ever, is broken off. One at a time.
class ShutdownRequest {
 public:
  ShutdownRequest();
  ~ShutdownRequest();
  ShutdownRequest(const ShutdownRequest&) = delete;
  ShutdownRequest& operator=(const ShutdownRequest&) = delete;

  // Readable, for poll(2), once the end is requested.
  int descriptor() const { return wake_.get(); }
  bool isMade() const;

  // Between breakOff(true) and breakOff(false) a request ends the process at once, with 0. That is for work that can be
  // broken off anywhere, a request that is made already included.
  void breakOff(bool allowed);

 private:
  Descriptor wake_;
};

}  // namespace orvane

#pragma once

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// Handles SIGTERM, SIGINT and SIGHUP so that a single-threaded program always ends soon: its loop polls a descriptor,
// and long work is simply cut off. Only one may exist at a time.
class ShutdownRequest {
 public:
  ShutdownRequest();
  ~ShutdownRequest();
  ShutdownRequest(const ShutdownRequest&) = delete;
  ShutdownRequest& operator=(const ShutdownRequest&) = delete;

  // For poll(2): readable once a signal has arrived.
  int descriptor() const { return wake_.get(); }
  bool isMade() const;

  // From exitAtOnce(true) to exitAtOnce(false), a request ends the process with code 0 at once; one made earlier ends
  // it in exitAtOnce(true). For work that may stop anywhere.
  void exitAtOnce(bool enabled);

 private:
  Descriptor wake_;
};

}  // namespace orvane

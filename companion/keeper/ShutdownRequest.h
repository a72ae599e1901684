#pragma once

#include "platform/files/Descriptor.h"

namespace orvane {

// Handles SIGTERM, SIGINT and SIGHUP so that a single-threaded program ends soon after one of these signals: the
// program's loop polls descriptor(), and a signal cuts off long work between exitAtOnce(true) and exitAtOnce(false).
// Only one ShutdownRequest may exist at a time.
class ShutdownRequest {
 public:
  ShutdownRequest();
  ~ShutdownRequest();
  ShutdownRequest(const ShutdownRequest&) = delete;
  ShutdownRequest& operator=(const ShutdownRequest&) = delete;

  // A descriptor for poll(2), readable once a signal has arrived.
  int descriptor() const { return wake_.get(); }
  bool isMade() const;

  // From exitAtOnce(true) to exitAtOnce(false), a signal ends the process at once with code 0. If a signal arrived
  // before, exitAtOnce(true) itself ends the process. Call exitAtOnce() around work that may be cut off anywhere.
  void exitAtOnce(bool enabled);

 private:
  Descriptor wake_;
};

}  // namespace orvane

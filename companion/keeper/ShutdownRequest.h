#pragma once

#include <string>
#include <vector>

#include "platform/files/Descriptor.h"

namespace orvane {

// Handles SIGTERM, SIGINT and SIGHUP so that a single-threaded program ends soon after one of these signals: the
// program's loop polls descriptor(), and a signal cuts off long work between exitAtOnce(true) and exitAtOnce(false).
// Only one ShutdownRequest may exist at a time.
class ShutdownRequest {
 public:
  // `files`: the files that the process must not leave behind.
  explicit ShutdownRequest(std::vector<std::string> files = {});
  ~ShutdownRequest();
  ShutdownRequest(const ShutdownRequest&) = delete;
  ShutdownRequest& operator=(const ShutdownRequest&) = delete;

  // A descriptor for poll(2), readable once a signal has arrived.
  int descriptor() const { return wake_.get(); }
  bool isMade() const;

  // From exitAtOnce(true) to exitAtOnce(false), a signal removes the files and ends the process at once with code 0. If
  // a signal arrived before, exitAtOnce(true) itself does this. Call exitAtOnce() around work that may be cut off
  // anywhere.
  void exitAtOnce(bool enabled);

  // For an end without exitAtOnce().
  void removeFiles() const;

 private:
  const std::vector<std::string> files_;
  Descriptor wake_, writingEnd_;  // of a pipe
};

}  // namespace orvane

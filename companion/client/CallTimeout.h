#pragma once

#include <chrono>

namespace orvane {

// For as long as this lives, calls over a connection take no longer than the time given, counted from the start: the
// connection is shut down then, and the call that waits ends with a ClientError. For a program with one thread; takes
// SIGALRM and ITIMER_REAL. One at a time.
class CallTimeout {
 public:
  explicit CallTimeout(std::chrono::milliseconds limit);
  ~CallTimeout();
  CallTimeout(const CallTimeout&) = delete;
  CallTimeout& operator=(const CallTimeout&) = delete;

  // Client::descriptor(), which must stay open; -1 before and after. Without one, only connecting ends in time.
  void watch(int connection);
  // Whether the time is over.
  bool passed() const;
};

}  // namespace orvane

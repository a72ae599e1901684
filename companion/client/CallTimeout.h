#pragma once

#include <chrono>

namespace orvane {

// Limits the total time of all calls over one connection. Without this limit, a call to an extension that hangs would
// never return. When the time is over, the connection is shut down and the waiting call throws ClientError.
//
// For single-threaded programs. Uses SIGALRM and ITIMER_REAL, so only one CallTimeout may exist at a time.
class CallTimeout {
 public:
  // The time starts when the constructor runs. If the extension accepts no connection, connect_client() waits only
  // until the first signal, which comes after 200 ms.
  explicit CallTimeout(std::chrono::milliseconds timeout);
  ~CallTimeout();
  CallTimeout(const CallTimeout&) = delete;
  CallTimeout& operator=(const CallTimeout&) = delete;

  // `connection`: Client::descriptor(), which must stay open for the lifetime of this object.
  void watch(int connection);
  bool hasExpired() const;
};

}  // namespace orvane

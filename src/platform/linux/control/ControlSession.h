#pragma once

#include <atomic>
#include <chrono>

#include "service/OrvaneSECommunication.h"

namespace orvane {

// Since when a session has waited for its client's next call. Thread-safe.
class SessionActivity {
 public:
  using Clock = std::chrono::steady_clock;

  void beginCall() { idleSince_ = Clock::time_point::max(); }
  void endCall() { idleSince_ = Clock::now(); }
  // In the future while a call is carried out.
  Clock::time_point idleSince() const { return idleSince_; }

 private:
  std::atomic<Clock::time_point> idleSince_{Clock::now()};
};

enum class SessionEnd {
  Closed,  // the client closed the connection or exited
  Broken   // the connection was reset or cut off within a message, or the session rejected a message
};

// Serves one client on the calling thread: carries out its calls on `exported` in order, until the connection ends.
// `socket` is a connected stream socket, which the caller keeps and closes. Shutting it down from another thread ends
// the session. If `exported` is null, every call is answered with an error. `activity` shows what the session does.
//
// Clients are not trusted:
// - All sessions share one budget of memory for large messages, and one for values, those that are stored included. A
//   call beyond the second one is answered with an error; the session goes on.
// - The session reads no message while the client leaves earlier replies unread.
// - Too many unfinished calls end the session, and so does any message that this protocol does not need.
SessionEnd serve_session(int socket, OrvaneSECommunication* exported, SessionActivity& activity);

}  // namespace orvane

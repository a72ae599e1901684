#pragma once

#include <atomic>
#include <chrono>

#include "service/OrvaneSECommunication.h"

namespace orvane {

// Tells since when a session has been waiting for its client's next call. Thread-safe.
class SessionActivity {
 public:
  using Clock = std::chrono::steady_clock;

  void beginCall() { idleSince_ = Clock::time_point::max(); }
  void endCall() { idleSince_ = Clock::now(); }
  // When the wait for the next call began. The largest possible time if the session does not wait, because a call is
  // being carried out or a large message is arriving.
  Clock::time_point idleSince() const { return idleSince_; }

 private:
  std::atomic<Clock::time_point> idleSince_{Clock::now()};
};

enum class SessionEnd {
  Closed,  // the client closed the connection or exited, or another thread shut the socket down
  Broken   // the connection was reset or cut off within a message, or the client broke a rule or a limit
};

// Serves one client on the calling thread: carries out its calls on `exported` in order, until the connection ends.
// `socket` is a connected stream socket, which the caller keeps and closes. Shutting the socket down from another
// thread ends the session. If `exported` is null, every call is answered with an error. The session records in
// `activity` whether it is idle.
//
// Clients are not trusted:
// - All sessions share two memory budgets: one for large messages, and one for the values that are made from them. A
//   large message waits for its turn (MemoryBudget.h) before it is read, and again before its call is carried out. The
//   session is idle during the first wait.
// - A call is answered with an error, and the session goes on, if the call can never have the memory for its values, or
//   if the extension would then store too many values.
// - While too many bytes of replies wait because the client does not read them, the session reads no further message.
// - The session ends if the client has too many unfinished calls, sends a malformed message or one that this protocol
//   does not need, or sends a large message too slowly.
SessionEnd serve_session(int socket, OrvaneSECommunication* exported, SessionActivity& activity);

}  // namespace orvane

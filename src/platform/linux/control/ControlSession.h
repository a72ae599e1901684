#pragma once

#include "service/OrvaneSECommunication.h"

namespace orvane {

enum class SessionEnd {
  Closed,  // the peer closed the connection, or is gone
  Broken   // reset, cut off within a message, or given up because of what the peer sent
};

// Carries out what one client asks, message by message, until the connection ends. `socket` is a connected stream
// socket, which stays the caller's; shutting it down from another thread ends the session. Null exports nothing: every
// message is then answered with an error.
//
// What a client can make this process do is bounded: memory for large messages is shared by all sessions; no message is
// read while the client leaves earlier replies unread; calls that the client never finishes end the session, and so
// does whatever a client of this protocol has no cause to send.
SessionEnd serve_session(int socket, OrvaneSECommunication* exported);

}  // namespace orvane

#include "companion/client/ControlChannel.h"

#include <poll.h>

namespace orvane {

std::vector<std::string> socket_paths(const ClientOptions&) { return {}; }

// No byte is ever written into the descriptor, so it is readable only after the end of the connection.
const short kHangUpEvent = POLLIN;

// In bytes. The documentation of XPC names no limit for a message, so this is the limit that the extension has on
// Linux.
const uint64_t kMessageRoom = uint64_t{128} << 20;

uint64_t room_of(std::string_view name) {
  constexpr uint64_t kOfEachName = 32;  // what the encoding may add
  return name.size() + kOfEachName;
}

}  // namespace orvane

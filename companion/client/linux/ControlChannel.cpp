#include "companion/client/ControlChannel.h"

#include <poll.h>

#include <algorithm>
#include <filesystem>

#include "platform/linux/control/SocketPath.h"
#include "platform/linux/control/ValueMessage.h"

namespace orvane {

std::vector<std::string> socket_paths(const ClientOptions& options) {
  if (!options.socket.empty()) return {std::filesystem::absolute(options.socket).lexically_normal()};
  std::string error;  // not used: connect_client() reports it
  return client_socket_paths(options.service, &error);
}

const short kHangUpEvent = POLLRDHUP;

// In words. A message has a limit of words and a limit of names. The room of a name is at least the limit of words
// divided by the limit of names. So if the rooms of all names together are within the limit of words, the names are
// within the limit of names, too.
const uint64_t kMessageRoom = kMaximumCallWords - ValueSize::kEnvelopeWords;

uint64_t room_of(std::string_view name) {
  constexpr uint64_t kLeast = kMaximumCallWords / kMaximumElements;
  return std::max(measure_string(name.size()).words, kLeast);
}

}  // namespace orvane

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "companion/client/Client.h"

// What a program must know about this system's control channel, apart from Client.h.
namespace orvane {

// The absolute paths at which an extension's socket may appear. Empty on macOS, where the extension has no socket.
std::vector<std::string> socket_paths(const ClientOptions& options);

// The event for poll(2) that Client::descriptor() has when the extension has closed the connection.
extern const short kHangUpEvent;

// The room that a name takes in a message to the extension, and the room that the names of one message may take.
uint64_t room_of(std::string_view name);
extern const uint64_t kMessageRoom;

}  // namespace orvane

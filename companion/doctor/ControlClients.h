#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace orvane {

// A process that has connected to the extension.
struct ControlClient {
  pid_t process = 0;    // 0 if it is in another PID namespace
  std::string program;  // the process's name, which the process itself chooses; empty if the process has ended
  size_t connections = 0;
};

// The processes whose connections the extension has accepted on its socket `socket`, without the calling process. The
// process with the most connections comes first. Nothing if no process of this PID namespace listens on the socket, or
// if the calling process may not copy the extension's descriptors (root may).
std::optional<std::vector<ControlClient>> control_clients(const std::string& socket);

}  // namespace orvane

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/base/Descriptor.h"

// Where the control channel's socket stands: a file that bears the service's name.
namespace orvane {

struct ServerSocket {
  std::string path;
  mode_t mode;  // of its file: who may connect
};

// The socket of an extension that runs as this process's user: in the directory that the service manager made
// ($RUNTIME_DIRECTORY), else in the user's runtime directory. On failure nothing, and *error says why.
//
// It is the user's alone, but in the service manager's directory the group's too: there whoever wrote the service's
// description has said which group that is, and who may enter the directory.
std::optional<ServerSocket> server_socket(const std::string& service, std::string* error);

// Where a client of this process's user looks, in this order: the user's runtime directory and the folder orvane-se in
// it, /run/orvane-se, /run. Empty, with *error set, when the name cannot be a socket's.
std::vector<std::string> client_socket_paths(const std::string& service, std::string* error);

// Connects a Unix-domain stream socket to one at a path. 0, or what went wrong (errno).
int connect_to(const std::string& path, const Descriptor& connection);

}  // namespace orvane

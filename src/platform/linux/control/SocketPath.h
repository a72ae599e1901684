#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/base/Descriptor.h"

// Where the control channel's socket is: a file that is named after the service.
namespace orvane {

struct ServerSocket {
  std::string path;
  mode_t mode;  // of the file: who may connect
};

// Where an extension of this process's user listens. Nothing, with *error set, on failure.
//
//   directory                                                        mode
//   $RUNTIME_DIRECTORY, which the service manager made                0660: the unit's Group= may connect
//   the user's runtime directory (/run for root), if that is not set  0600
std::optional<ServerSocket> server_socket(const std::string& service, std::string* error);

// The paths that a client of this user tries, in order: in the user's runtime directory, in its folder orvane-se, in
// /run/orvane-se, in /run. Returns none and sets *error if `service` cannot be a socket's name.
std::vector<std::string> client_socket_paths(const std::string& service, std::string* error);

// The address of a Unix-domain socket at a path. Nothing if the path is too long for one.
std::optional<sockaddr_un> unix_address(const std::string& path);

// Connects a Unix-domain stream socket to the socket at a path. Returns 0 or an errno value.
int connect_to(const std::string& path, const Descriptor& connection);

}  // namespace orvane

#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/files/Descriptor.h"

// Finds the control channel's socket, which is a file with the service's name.
namespace orvane {

struct ServerSocket {
  std::string path;
  mode_t mode;  // the socket file's mode, which decides who may connect
};

// The socket on which the extension listens if it runs as the user of this process. Nothing, with *error set, on
// failure.
//
//   if                          directory                                               mode of the socket file
//   $RUNTIME_DIRECTORY is set   its first entry, which the service manager made         0660: the service's
//                                                                                       group may connect
//   otherwise                   the user's runtime directory: /run for root, else       0600
//                               $XDG_RUNTIME_DIR, /run/user/UID or /tmp/orvane-UID,
//                               the first that is a directory
std::optional<ServerSocket> server_socket(const std::string& service, std::string* error);

// The folder of the packaged service's socket: its unit has RuntimeDirectory=orvane-se.
inline constexpr const char* kServiceSocketFolder = "/run/orvane-se";

// The paths that a client of this user tries, in order: in the user's runtime directory (see above), in the folder
// orvane-se of that directory, in /run/orvane-se, in /run. If `service` cannot be a socket's name, returns no paths and
// sets *error.
std::vector<std::string> client_socket_paths(const std::string& service, std::string* error);

// The address of a Unix-domain socket at a path. Nothing if the path is too long for such an address.
std::optional<sockaddr_un> unix_address(const std::string& path);

// Connects a Unix-domain stream socket to the socket at a path. Returns 0 or an errno value.
int connect_to(const std::string& path, const Descriptor& connection);

// The process at the other end of a connected Unix-domain socket, and its user. For a client's socket, this is the
// process that called listen(2). If the kernel does not know the process, its number is 0.
ucred peer_of(int connection);

}  // namespace orvane

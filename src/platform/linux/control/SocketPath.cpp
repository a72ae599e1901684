#include "platform/linux/control/SocketPath.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orvane {
namespace {

bool is_directory(const std::string& path) {
  struct stat status = {};
  return !path.empty() && path[0] == '/' && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

enum class Missing { Make, Refuse };

// A directory in /tmp that this user owns and nobody else can enter.
std::optional<std::string> private_directory(Missing missing, std::string* error) {
  std::string path = "/tmp/orvane-" + std::to_string(geteuid());
  if (missing == Missing::Make && mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = "cannot make " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != geteuid() ||
      (status.st_mode & 077) != 0) {
    *error = path + " is not a directory of this user alone; remove it";
    return std::nullopt;
  }
  return path;
}

// For root, /run. For any other user, the first of these that is a directory: $XDG_RUNTIME_DIR, /run/user/UID, a
// private directory in /tmp.
std::optional<std::string> user_directory(Missing missing, std::string* error) {
  if (geteuid() == 0) return "/run";
  for (const std::string& path : {environment("XDG_RUNTIME_DIR"), "/run/user/" + std::to_string(geteuid())}) {
    if (is_directory(path)) return path;
  }
  return private_directory(missing, error);
}

bool is_file_name(const std::string& service, std::string* error) {
  bool fits = !service.empty() && service != "." && service != ".." &&
              service.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
  if (!fits) *error = "the service name \"" + service + "\" cannot be a file name";
  return fits;
}

std::optional<std::string> socket_path(const std::string& directory, const std::string& service, std::string* error) {
  std::string path = directory + "/" + service;
  if (path.size() < sizeof(sockaddr_un::sun_path)) return path;
  *error = "the socket path " + path + " is longer than " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
           " bytes: use a shorter service name";
  return std::nullopt;
}

}  // namespace

std::optional<ServerSocket> server_socket(const std::string& service, std::string* error) {
  if (!is_file_name(service, error)) return std::nullopt;
  // If the service has several runtime directories, systemd separates them by colons. The first is used.
  std::string managed = environment("RUNTIME_DIRECTORY");
  managed.resize(std::min(managed.size(), managed.find(':')));
  std::optional<std::string> directory = managed.empty() ? user_directory(Missing::Make, error) : managed;
  std::optional<std::string> path = directory ? socket_path(*directory, service, error) : std::nullopt;
  if (!path) return std::nullopt;
  return ServerSocket{*std::move(path), static_cast<mode_t>(managed.empty() ? 0600 : 0660)};
}

std::vector<std::string> client_socket_paths(const std::string& service, std::string* error) {
  std::vector<std::string> paths;
  if (!is_file_name(service, error)) return paths;
  std::string reason;  // ignored: if the user has no directory, the paths in the system's directories remain
  std::optional<std::string> own = user_directory(Missing::Refuse, &reason);
  // A user's service manager that runs the packaged unit makes the folder orvane-se in the user's runtime directory.
  for (const std::string& directory : {own.value_or("/run"), own.value_or("/run") + "/orvane-se",
                                       std::string(kServiceSocketFolder), std::string("/run")}) {
    auto path = socket_path(directory, service, error);
    if (path && std::find(paths.begin(), paths.end(), *path) == paths.end()) paths.push_back(*path);
  }
  if (!paths.empty()) error->clear();
  return paths;
}

std::optional<sockaddr_un> unix_address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int connect_to(const std::string& path, const Descriptor& connection) {
  auto address = unix_address(path);
  if (!address) return ENAMETOOLONG;
  return connect(connection.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0 ? 0 : errno;
}

ucred peer_of(int connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer;
}

}  // namespace orvane

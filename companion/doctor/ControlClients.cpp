#include "companion/doctor/ControlClients.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <map>
#include <string_view>

#include "platform/files/Descriptor.h"
#include "platform/files/Files.h"
#include "platform/linux/control/SocketPath.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

// Handles for other processes, and copies of their descriptors. The code makes the system calls directly, because glibc
// 2.36 declares its wrappers of these calls (sys/pidfd.h) without C linkage, which C++ needs.
Descriptor open_process(pid_t process) { return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0))); }
Descriptor copy_descriptor(const Descriptor& process, int number) {
  return Descriptor(static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), number, 0)));
}

bool is_bound_to(const Descriptor& socket, std::string_view path) {
  sockaddr_un address{};
  socklen_t size = sizeof address;
  if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
  return address.sun_family == AF_UNIX && size > offsetof(sockaddr_un, sun_path) && path == address.sun_path;
}

bool is_listening(const Descriptor& socket) {
  int listening = 0;
  socklen_t size = sizeof listening;
  return ::getsockopt(socket.get(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0;
}

std::string program_of(pid_t process) {
  constexpr size_t kLimit = 64;
  std::string name = read_file_start("/proc/" + std::to_string(process) + "/comm", kLimit, Links::Follow).value_or("");
  if (name.ends_with('\n')) name.pop_back();
  return name;
}

}  // namespace

std::optional<std::vector<ControlClient>> control_clients(const std::string& socket) {
  Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe || connect_to(socket, probe) != 0) return std::nullopt;
  const pid_t extension = peer_of(probe.get()).pid;
  const Descriptor handle = open_process(extension);  // fails for pid 0, a process in another PID namespace
  if (!handle) return std::nullopt;
  std::map<pid_t, size_t> connections;
  std::error_code error;
  for (fs::directory_iterator entry("/proc/" + std::to_string(extension) + "/fd", error), end; !error && entry != end;
       entry.increment(error)) {
    // The kernel stores with each accepted connection which process called connect(2), so a copy of the connection's
    // descriptor shows which process the client is.
    const Descriptor copy = copy_descriptor(handle, std::stoi(entry->path().filename().string()));
    if (!copy && errno == EPERM) return std::nullopt;
    if (!copy || !is_bound_to(copy, socket) || is_listening(copy)) continue;
    const pid_t client = peer_of(copy.get()).pid;
    if (client != ::getpid()) ++connections[client];
  }
  if (error) return std::nullopt;
  std::vector<ControlClient> clients;
  clients.reserve(connections.size());
  for (const auto& [process, count] : connections) clients.push_back({process, program_of(process), count});
  std::stable_sort(clients.begin(), clients.end(),
                   [](const auto& left, const auto& right) { return left.connections > right.connections; });
  return clients;
}

}  // namespace orvane

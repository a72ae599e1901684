#include "platform/linux/sockets/ConnectionOwner.h"

#include <netinet/in.h>

#include <mutex>
#include <optional>

#include "platform/linux/base/SocketAddress.h"
#include "platform/linux/sockets/SocketDiagnostics.h"
#include "platform/linux/sockets/SocketHolders.h"

namespace orvane {
namespace {

std::optional<SocketAddress> read_address(const sockaddr* address) {
  bool v4 = address != nullptr && address->sa_family == AF_INET;
  return SocketAddress::from(address, v4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
}

std::optional<SocketFacts> find_socket(const sockaddr* local, const sockaddr* remote) {
  auto own = read_address(local);
  auto peer = read_address(remote);
  if (!own || !peer) return std::nullopt;
  // A SocketDiagnostics object is not thread-safe and belongs to one network namespace, so each call makes a new one.
  return SocketDiagnostics().find({IPPROTO_TCP, *own, *peer});
}

}  // namespace

Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr* remote) {
  auto socket = find_socket(local, remote);
  static auto* holders = new SocketHolders;
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  auto holder = socket ? holders->find(*socket) : std::nullopt;
  return token_value(holder ? holder->auditToken() : std::nullopt);
}

std::optional<uid_t> user_of_socket(const sockaddr* local, const sockaddr* remote) {
  auto socket = find_socket(local, remote);
  // For a closed socket (inode 0), the kernel may report user 0 instead of the creator.
  return socket && socket->inode != 0 ? std::optional(socket->user) : std::nullopt;
}

}  // namespace orvane

#pragma once

#include <linux/inet_diag.h>
#include <linux/sock_diag.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "platform/files/Descriptor.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// Queries the kernel's socket diagnostics (sock_diag(7)) over one netlink socket. An object sees the sockets of the
// network namespace in which it was made. Not thread-safe.
class SocketDiagnostics {
 public:
  SocketDiagnostics();

  // Like SocketOwners::find() (SocketOwner.h), but without the kernel's record of openers.
  std::optional<SocketFacts> find(const SocketPair& pair);

  // The same as SocketOwners::streams().
  std::vector<uint64_t> streams();

  // Aborts the datagram socket that sends with these endpoints and has this cookie (SocketAborter.h). May wait for
  // ever. Returns 0 or an errno.
  int abort(const SocketPair& pair, uint64_t cookie);

 private:
  // Called for each socket of a reply.
  using SocketCallback = std::function<void(const inet_diag_msg&)>;

  bool query(const inet_diag_req_v2& request, uint16_t flags, const SocketCallback& onSocket,
             uint16_t type = SOCK_DIAG_BY_FAMILY);
  enum class Reply { Unfinished, Finished, Failed };
  Reply receive(const SocketCallback& onSocket);

  Descriptor netlink_;
  int openError_ = 0;
  uint32_t sequence_ = 0;
};

}  // namespace orvane

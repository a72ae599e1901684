#pragma once

#include <linux/inet_diag.h>

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/linux/base/Descriptor.h"
#include "platform/linux/sockets/SocketOwner.h"

namespace orvane {

// The kernel's socket diagnostics (sock_diag(7)), asked over one netlink socket. An object belongs to the network
// namespace of the thread that made it. Not thread-safe.
class SocketDiagnostics {
 public:
  SocketDiagnostics();

  // As SocketOwners::find(), from the kernel's tables of open sockets alone.
  std::optional<SocketFacts> find(const SocketPair& pair);

 private:
  // One socket of an answer.
  using Take = std::function<void(const inet_diag_msg&)>;

  bool ask(const inet_diag_req_v2& request, uint16_t flags, const Take& take);
  enum class Answer { Unfinished, Finished, Failed };
  Answer receive(const Take& take);

  Descriptor netlink_;
  int openError_ = 0;
  uint32_t sequence_ = 0;
};

}  // namespace orvane

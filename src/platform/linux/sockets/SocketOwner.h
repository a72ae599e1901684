#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Value.h"
#include "platform/linux/base/SocketAddress.h"

namespace orvane {

// A socket of this network namespace, as the kernel's socket diagnostics (sock_diag(7)) tell of it.
struct SocketFacts {
  uint64_t cookie;  // no other socket has had it since the system's start
  uint32_t inode;   // 0 when no process holds it any more, and when it has not been asked for
  uid_t user;       // who made it
  bool connected =
      false;  // a datagram's socket: to the remote end that was asked about; else only bound to the local one
};

// Who owns sockets. Two sources: what the kernel has recorded since recordOpeners(), the process that last connected
// the socket or sent with it; and the process table, which tells who holds it now. One's own processes need no
// privilege, those of other users CAP_SYS_PTRACE (proc(5), /proc/pid/fd).
//
// The process table: when several processes hold the socket, the answer is the ancestor of the others: children inherit
// sockets, so the process that opened it stands above them. Holders that are not each other's ancestors are equal, and
// any may be the answer. The processes that owned the last sockets are looked at first.
//
// An object belongs to the network namespace of the thread that made it. Not thread-safe.
class SocketOwners {
 public:
  SocketOwners();
  ~SocketOwners();
  SocketOwners(const SocketOwners&) = delete;
  SocketOwners& operator=(const SocketOwners&) = delete;

  // Tries whether sockets can be found at all, on one of its own. Returns why not: every flow would be nobody's then.
  std::optional<std::string> check();

  // Has the kernel record, from now to the object's end, which process connects a socket or sends a datagram (BPF
  // programs on the topmost control group, cgroup version 2). Needs CAP_BPF and CAP_NET_ADMIN, and to see processes
  // under the numbers that the whole system knows them by. Returns why it cannot be; the process table answers alone
  // then.
  std::optional<std::string> recordOpeners();

  // The socket whose own address is the pair's `local` and whose peer is `remote`; of a datagram, the socket that is
  // bound to `local`, or to its port. A socket without a peer that has sent a datagram within the last seconds is found
  // by the record even when it is closed. Nothing when there is none (errno is 0 then), and after a failure to ask
  // (errno tells which).
  std::optional<SocketFacts> find(const SocketPair& pair);

  // The audit token (data of 32 bytes) of the process that owns the socket. Nil when neither source knows one.
  //
  // A recorded process that has ended since may have left its socket to another: that is the owner then. Else it is
  // named by a token whose version is 0, which no running process has.
  Value ownerOf(const SocketFacts& socket);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace orvane

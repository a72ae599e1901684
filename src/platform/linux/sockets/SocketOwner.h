#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/base/SocketAddress.h"

namespace orvane {

// What is known about a socket, from the kernel's socket diagnostics (sock_diag(7)) or from the kernel's record of
// openers (SocketOpeners.h).
struct SocketFacts {
  uint64_t cookie;         // unique since boot
  uint32_t inode;          // 0 if the socket is closed or was found in the kernel's record
  uid_t user;              // the socket's creator; from the kernel's record, the opener's user
  bool connected = false;  // for a datagram socket: whether it is connected to `remote` of find()'s argument
  // The sequence number of the first byte that a TCP socket sends after the handshake. Nothing if the kernel's record
  // lacks it.
  std::optional<uint32_t> firstByte = {};
  // Whether a user other than the socket's creator has sent the datagram for which find() was called. Any user can send
  // with this socket's address and port (IP_PKTINFO).
  bool isOthers = false;
};

// Finds the process that owns a socket. There are two sources:
//
//   source           finds                                                   needs
//   kernel's record  the opener: the process that last connected the socket  CAP_BPF, CAP_NET_ADMIN
//                    or sent with sendto(2), since recordOpeners()
//   process table    a holder: a process with a descriptor of the socket     CAP_SYS_PTRACE for other users'
//                                                                            processes (proc(5), /proc/pid/fd)
//
// The owner is the opener. If the opener is unknown or has ended, the owner is a holder. If several processes hold the
// socket, the owner is the one that is the ancestor of the others, because children inherit sockets from the process
// that opened them. If the holders are not related, any of them may be chosen.
//
// An object belongs to the network namespace of the thread that made it. Not thread-safe.
class SocketOwners {
 public:
  SocketOwners();
  ~SocketOwners();
  SocketOwners(const SocketOwners&) = delete;
  SocketOwners& operator=(const SocketOwners&) = delete;

  // Checks, with sockets that it makes, that find() works. Returns the reason if it does not.
  std::optional<std::string> check();

  // Makes the kernel record openers, from now until the object is destroyed (SocketOpeners.h). Returns the reason if
  // that fails; the process table is then the only source.
  std::optional<std::string> recordOpeners();

  // The TCP socket with the pair's endpoints, or the socket that most likely sent a datagram from `local` to `remote`.
  // The kernel's record finds a datagram socket even if it was closed within the last seconds. Nothing if no socket
  // matches (errno is 0) or if the kernel could not be asked (errno is set).
  //
  // `user` is the creator of the socket that sent the datagram, as the packet queue reports it; kNoUser if it is not
  // known. Any user can send datagrams with the endpoints of another user's socket (IP_PKTINFO in ip(7)), so without
  // the user, that socket counts as the sender.
  std::optional<SocketFacts> find(const SocketPair& pair, uid_t user = kNoUser);

  // The socket that has sent a packet with these endpoints. If the kernel's record has this TCP connection, the result
  // comes from the record alone, with one system call, and the socket may be closed already. Otherwise the same as
  // find().
  std::optional<SocketFacts> sender(const SocketPair& pair, uid_t user = kNoUser);

  // Whether the socket with this cookie exists and still has these endpoints. If the kernel's record has the socket, a
  // look-up there is enough to see that it was closed.
  bool isOpen(const SocketPair& pair, uint64_t cookie);

  // The cookies of all TCP sockets in the network namespace.
  std::vector<uint64_t> streams();

  // The audit token (data of 32 bytes) of the process that owns the socket, which find() or sender() has found for
  // `pair`. Nil if neither source finds an owner.
  //
  // If the opener has ended and no process holds the socket, the token has the opener's pid and user, and the version
  // 0, which no running process has.
  Value ownerOf(const SocketPair& pair, const SocketFacts& socket);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace orvane

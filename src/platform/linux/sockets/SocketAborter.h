#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/files/Descriptor.h"
#include "platform/linux/base/ChildProcess.h"
#include "platform/linux/base/SocketAddress.h"

namespace orvane {

// Aborts datagram sockets: the program's waiting or next call fails with ECONNABORTED, and the socket loses its peer.
// It also loses its port, unless the program has chosen the port. Needs CAP_NET_ADMIN.
//
// Before the kernel aborts a socket, it waits for the socket's lock, and a user can keep this lock for ever: the kernel
// holds the lock while it copies the arguments of some system calls (for example setsockopt(2), SO_ATTACH_FILTER) from
// the user's memory. If this memory is mapped from a file in FUSE, the copy waits for the user's own file system.
//
// So a child process makes the system calls that abort sockets, and the caller never waits for the child. A child that
// waits for a lock cannot even be killed; until the lock is free, no socket is aborted.
//
// Not thread-safe.
class SocketAborter {
 public:
  struct Abort {
    SocketPair pair;
    uint64_t cookie;
    int error;
  };

  ~SocketAborter();

  // Starts the child, in the network namespace of the calling thread. Returns an error on failure.
  std::optional<std::string> start();

  // Lets the child abort the socket that sends with these endpoints and has this cookie. Returns false and sets errno
  // if too many sockets wait to be aborted, or if no child can be started.
  bool abort(const SocketPair& pair, uint64_t cookie);

  // A descriptor for poll(2), readable when next() has something to return or to do.
  int descriptor() const { return channel_.get(); }

  // The next abort that the child has tried, if there is one. The member `error` of the result is 0 or an errno: ENOENT
  // if no socket has the endpoints, or if the socket that has them has another cookie; EOPNOTSUPP if the kernel was
  // built without CONFIG_INET_DIAG_DESTROY. If the child has died, starts another child; the aborts that waited are
  // lost.
  std::optional<Abort> next();

 private:
  Descriptor channel_;
  ChildProcess child_;
};

}  // namespace orvane

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
// A child process makes the kernel's calls, because such a call first waits for the socket's lock, and a user can keep
// the lock of his socket for ever: the kernel holds the lock while it copies the arguments of some system calls, and
// the user can let the copy wait, for example with memory that is mapped from a file in FUSE (setsockopt(2),
// SO_ATTACH_FILTER). The caller never waits for the child. A child that waits for a lock cannot even be killed, and
// then no socket is aborted until the lock is free.
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

  // Lets the child abort the socket that sends with these endpoints and has this cookie. Returns false if too many
  // sockets wait to be aborted.
  bool abort(const SocketPair& pair, uint64_t cookie);

  // A descriptor for poll(2), readable when next() has something to return or to do.
  int descriptor() const { return channel_.get(); }

  // The next abort that the child has tried, if there is one. Its error is 0 or an errno: ENOENT if no socket, or
  // another one, has the endpoints; EOPNOTSUPP if the kernel was built without CONFIG_INET_DIAG_DESTROY. If the child
  // has died, starts another one, and the aborts that waited are lost.
  std::optional<Abort> next();

 private:
  Descriptor channel_;
  ChildProcess child_;
};

}  // namespace orvane

#include "platform/linux/sockets/SocketAborter.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "platform/linux/sockets/SocketDiagnostics.h"

namespace orvane {
namespace {

// Everything that the child process runs. It ends when the channel's other end is closed.
void serve(int channel) {
  SocketDiagnostics diagnostics;
  SocketAborter::Abort abort;
  while (::recv(channel, &abort, sizeof abort, 0) == sizeof abort) {
    abort.error = diagnostics.abort(abort.pair, abort.cookie);
    ::send(channel, &abort, sizeof abort, MSG_NOSIGNAL);
  }
}

}  // namespace

// Does not wait for the child, which may wait for a lock.
SocketAborter::~SocketAborter() { child_.kill(); }

std::optional<std::string> SocketAborter::start() {
  int ends[2];
  bool isStarted = ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0;
  if (isStarted) {
    channel_ = Descriptor(ends[0]);
    const Descriptor childsEnd(ends[1]);
    isStarted = child_.start("socket-aborter", {ends[1]}, [&] { serve(ends[1]); });
  }
  if (isStarted) return std::nullopt;
  const int error = errno;
  channel_.reset();
  std::string text = "no process that aborts sockets: " + std::generic_category().message(error);
  errno = error;
  return text;
}

bool SocketAborter::abort(const SocketPair& pair, uint64_t cookie) {
  const Abort abort{pair, cookie, 0};
  if (!channel_ && start()) return false;  // next() could not start another child, and neither can this call
  return ::send(channel_.get(), &abort, sizeof abort, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof abort;
}

std::optional<SocketAborter::Abort> SocketAborter::next() {
  Abort abort;
  const ssize_t size = ::recv(channel_.get(), &abort, sizeof abort, MSG_DONTWAIT);
  if (size == sizeof abort) return abort;
  if (size == 0 || (size < 0 && errno == ECONNRESET)) {
    child_.wait();
    start();
  }
  return std::nullopt;
}

}  // namespace orvane

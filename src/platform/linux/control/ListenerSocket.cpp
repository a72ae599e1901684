#include "platform/linux/control/ListenerSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/control/SocketPath.h"

namespace orvane {
namespace {

std::string failure(const char* what, const std::string& path) {
  return std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
}

Descriptor open_lock(const std::string& path, std::string* error) {
  Descriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) {
    *error = failure("open", path);
  } else if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    *error =
        errno == EWOULDBLOCK ? "another process already listens: it holds the lock " + path : failure("lock", path);
    lock.reset();
  }
  return lock;
}

bool has_listener(const std::string& path) {
  Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  int error = connect_to(path, probe);
  return error == 0 || error == EAGAIN;  // EAGAIN: a process listens, and its queue of connections is full
}

// Removes the socket file of a process that has ended.
bool remove_stale_socket(const std::string& path, std::string* error) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return true;
    *error = failure("look at", path);
  } else if (!S_ISSOCK(status.st_mode)) {
    *error = path + " is not a socket; remove it";
  } else if (has_listener(path)) {
    *error = "another process already listens on " + path;
  } else if (unlink(path.c_str()) != 0) {
    *error = failure("remove the old socket", path);
  } else {
    return true;
  }
  return false;
}

}  // namespace

std::optional<ListenerSocket> ListenerSocket::create(const std::string& path, mode_t mode, std::string* error) {
  ListenerSocket listener;
  listener.lock_ = open_lock(path + ".lock", error);
  if (!listener.lock_ || !remove_stale_socket(path, error)) return std::nullopt;
  listener.socket_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  auto address = unix_address(path);
  if (!address) errno = ENAMETOOLONG;
  if (!listener.socket_ || !address ||
      bind(listener.socket_.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    *error = failure("bind", path);
    return std::nullopt;
  }
  listener.path_ = path;
  // Nobody can connect before listen(), so the mode can be set after bind().
  if (chmod(path.c_str(), mode) != 0 || listen(listener.socket_.get(), SOMAXCONN) != 0) {
    *error = failure("listen on", path);
    return std::nullopt;
  }
  return listener;
}

ListenerSocket::~ListenerSocket() {
  if (socket_ && !path_.empty()) unlink(path_.c_str());
}

}  // namespace orvane

#include "platform/linux/control/ListenerSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace orvane {
namespace {

std::string failure(const char* what, const std::string& path) {
  return std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
}

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

Descriptor open_lock(const std::string& path, std::string* error) {
  Descriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) {
    *error = failure("open", path);
  } else if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    *error = errno == EWOULDBLOCK ? "another process listens already: it holds " + path : failure("lock", path);
    lock.reset();
  }
  return lock;
}

bool is_answered(const sockaddr_un& address) {
  Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // A full queue of connections is a sign of life, too.
  return connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN;
}

// Makes room for a new socket.
bool clear(const std::string& path, std::string* error) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return true;
    *error = failure("look at", path);
  } else if (!S_ISSOCK(status.st_mode)) {
    *error = path + " is in the way: it is no socket";
  } else if (is_answered(address_of(path))) {
    *error = "another process listens already on " + path;
  } else if (unlink(path.c_str()) != 0) {
    *error = failure("remove the old", path);
  } else {
    return true;
  }
  return false;
}

}  // namespace

std::optional<ListenerSocket> ListenerSocket::create(const std::string& path, mode_t mode, std::string* error) {
  ListenerSocket listener;
  listener.lock_ = open_lock(path + ".lock", error);
  if (!listener.lock_ || !clear(path, error)) return std::nullopt;
  listener.socket_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = address_of(path);
  if (!listener.socket_ ||
      bind(listener.socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    *error = failure("bind", path);
    return std::nullopt;
  }
  listener.path_ = path;
  // Nobody can connect before listen(), so the mode may come after the file.
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

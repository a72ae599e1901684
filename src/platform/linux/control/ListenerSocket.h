#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// A listening Unix-domain stream socket that this process alone listens on. The mode of its file says who may connect.
// The file goes when this goes.
class ListenerSocket {
 public:
  // Replaces a socket that a dead predecessor left. Nothing, with *error set, when a living process listens there,
  // something that is no socket stands there, or the system refuses. Of several that try at once one succeeds: the lock
  // on a file beside the socket is held for as long as it is listened on. That file stays.
  static std::optional<ListenerSocket> create(const std::string& path, mode_t mode, std::string* error);

  ListenerSocket(ListenerSocket&&) = default;
  ~ListenerSocket();

  int descriptor() const { return socket_.get(); }

 private:
  ListenerSocket() = default;

  std::string path_;
  Descriptor lock_, socket_;
};

}  // namespace orvane

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "platform/files/Descriptor.h"

namespace orvane {

// How many clients are served at the same time. Further clients wait.
inline constexpr size_t kMaximumConnections = 64;

// A listening Unix-domain stream socket. The mode of its file decides who may connect. The destructor removes the file.
class ListenerSocket {
 public:
  // Replaces the socket file of a process that has ended. Returns nothing and sets *error if another process listens at
  // `path`, if another kind of file is there, or if a system call fails.
  //
  // The object holds a lock on the file `path`.lock, so only one of several processes can listen. The lock file is
  // never removed.
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

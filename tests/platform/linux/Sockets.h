#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <functional>
#include <string>
#include <thread>

#include "platform/linux/Descriptor.h"

namespace orvane {

inline uint16_t port_of(int socket, bool peer = false) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  (peer ? getpeername : getsockname)(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);  // in the same place for IPv6
}

// A blocking connection, as a simple client or server would use it. Nothing waits longer than ten seconds.
class Peer {
 public:
  explicit Peer(Descriptor socket) : socket_(std::move(socket)) {
    timeval patience{10, 0};
    setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  }

  static Peer connectTo(uint16_t port, int family = AF_INET) {
    Descriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in v4{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_in6 v6{AF_INET6, htons(port), 0, IN6ADDR_LOOPBACK_INIT, 0};
    auto* address = family == AF_INET ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
    if (connect(socket.get(), address, family == AF_INET ? sizeof v4 : sizeof v6) != 0) socket.reset();
    return Peer(std::move(socket));
  }

  int fd() const { return socket_.get(); }
  explicit operator bool() const { return static_cast<bool>(socket_); }
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      ssize_t count = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
  }
  void endSending() { shutdown(fd(), SHUT_WR); }
  void reset() {
    linger discard{1, 0};
    setsockopt(fd(), SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
    socket_.reset();
  }

  // Reads until the bytes read end in `ending`, or (without one) until the end. What was read; the way it ended
  // otherwise is in `error`: 0 for an orderly end.
  std::string read(std::string_view ending = {}) {
    std::string text;
    char byte[1];
    for (;;) {
      ssize_t count = recv(fd(), byte, 1, 0);
      error = count < 0 ? errno : 0;
      if (count <= 0) return text;
      text += byte[0];
      if (!ending.empty() && text.ends_with(ending)) return text;
    }
  }

  int error = 0;

 private:
  Descriptor socket_;
};

// A server on 127.0.0.1 (or ::1) that serves each client in turn.
class Server {
 public:
  explicit Server(std::function<void(Peer&)> serve, int family = AF_INET)
      : listener_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)), serve_(std::move(serve)) {
    sockaddr_in v4{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_in6 v6{AF_INET6, 0, 0, IN6ADDR_LOOPBACK_INIT, 0};
    auto* address = family == AF_INET ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
    (void)bind(listener_.get(), address, family == AF_INET ? sizeof v4 : sizeof v6);
    listen(listener_.get(), 16);
    thread_ = std::thread([this] {
      for (;;) {
        Descriptor client(accept(listener_.get(), nullptr, nullptr));
        if (!client) return;
        Peer peer(std::move(client));
        serve_(peer);
      }
    });
  }
  ~Server() {
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

  uint16_t port() const { return port_of(listener_.get()); }

 private:
  Descriptor listener_;
  std::function<void(Peer&)> serve_;
  std::thread thread_;
};

}  // namespace orvane

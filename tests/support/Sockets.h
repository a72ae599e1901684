#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "platform/files/Descriptor.h"

namespace orvane {

inline Descriptor listen_on_loopback() {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  (void)bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  listen(listener.get(), 16);
  return listener;
}

inline uint16_t port_of(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

inline std::pair<Descriptor, Descriptor> socket_pair(int type = SOCK_STREAM) {
  int ends[2] = {-1, -1};
  socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// One side of a connection, with a blocking socket.
struct Peer {
  Descriptor socket;
  int error = 0;  // the errno that ended the last read(); 0 if the read() ended without an error

  explicit Peer(Descriptor connected) : socket(std::move(connected)) {}
  explicit Peer(uint16_t port) : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) socket.reset();
  }

  bool send(const std::string& bytes) {
    return ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  void endSending() { shutdown(socket.get(), SHUT_WR); }

  // Reads until the text ends with `ending`, or to the end of the stream when `ending` is empty.
  std::string read(const std::string& ending = {}) {
    std::string text;
    for (char byte = 0; ending.empty() || !text.ends_with(ending); text += byte) {
      ssize_t count = recv(socket.get(), &byte, 1, 0);
      error = count < 0 ? errno : 0;
      if (count <= 0) break;
    }
    return text;
  }
};

// A server on 127.0.0.1 that serves one client after the other.
class Server {
 public:
  explicit Server(const std::function<void(Peer&)>& serve)
      : thread_([this, serve] {
          while (Descriptor client{accept(listener_.get(), nullptr, nullptr)}) {
            Peer peer(std::move(client));
            serve(peer);
          }
        }) {}
  ~Server() {
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }

  uint16_t port() const { return port_of(listener_); }

 private:
  Descriptor listener_ = listen_on_loopback();
  std::thread thread_;
};

}  // namespace orvane

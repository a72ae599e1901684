#include "platform/linux/proxy/Proxy.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <system_error>

#include "platform/Log.h"
#include "platform/linux/base/ListEdits.h"
#include "platform/linux/base/SocketAddress.h"
#include "platform/linux/base/SocketIO.h"
#include "platform/linux/proxy/ProxyConnection.h"
#include "platform/linux/proxy/ProxyPlaces.h"
#include "platform/linux/sockets/ConnectionOwner.h"

namespace orvane {

using namespace std::chrono_literals;

// The proxy and the threads of its connections own this object together, because the threads may outlive the proxy.
struct Proxy::Shared {
  explicit Shared(size_t connectionLimit) : places(connectionLimit) {}

  ProxyContext context;
  ProxyPlaces places;
};

namespace {

std::string failure(const char* what, int error) {
  return std::string("proxy: ") + what + ": " + std::generic_category().message(error);
}

// Listens on the loopback address of an address family. Returns no descriptor and sets errno on failure.
Descriptor listen_on(int family, uint16_t port) {
  Descriptor listener(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener) return {};
  int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(port);
  v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(port);
  v6.sin6_addr = IN6ADDR_LOOPBACK_INIT;
  auto* address = family == AF_INET ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
  socklen_t size = family == AF_INET ? sizeof v4 : sizeof v6;
  if (family == AF_INET6) setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (bind(listener.get(), address, size) != 0 || listen(listener.get(), SOMAXCONN) != 0) {
    int error = errno;
    listener.reset();
    errno = error;
  }
  return listener;
}

uint16_t bound_port(int listener) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// Each connection needs three descriptors, so the usual soft limit on descriptors (1024) is too low for
// kProxyConnectionLimit connections.
void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 6 * kProxyConnectionLimit));
  setrlimit(RLIMIT_NOFILE, &limit);
}

uid_t user_of_client(const Descriptor& client) {
  const auto ends = socket_ends(client.get());
  if (!ends) return kNoUser;
  return user_of_socket(reinterpret_cast<const sockaddr*>(&ends->peer), reinterpret_cast<const sockaddr*>(&ends->local))
      .value_or(kNoUser);
}

}  // namespace

std::optional<std::string> Proxy::start(Ref<NEFilterDataProvider> provider, const NEFilterSettings& settings) {
  raise_descriptor_limit();
  if (auto error = listenOnLoopback()) return error;
  shared_ = std::make_shared<Shared>(limits_.connections);
  shared_->context.provider = std::move(provider);
  shared_->context.settings = settings;
  shared_->context.port = port_;
  stop_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!stop_) return failure("no event descriptor", errno);
  try {
    acceptor_ = std::thread(&Proxy::accept, this);
  } catch (const std::system_error& error) {
    return failure("no thread", error.code().value());
  }
  for (const Descriptor& listener : listeners_) {
    const char* address = &listener == listeners_.data() ? "127.0.0.1" : "[::1]";
    ORVANE_LOG_DEFAULT(default_log(), "proxy listening on %s:%d", address, static_cast<int>(port_));
  }
  return std::nullopt;
}

// Listens on one port of both loopback addresses, or of 127.0.0.1 alone on a system without IPv6.
std::optional<std::string> Proxy::listenOnLoopback() {
  for (int attempt = 1;; ++attempt) {
    listeners_.clear();
    Descriptor v4 = listen_on(AF_INET, port_);
    if (!v4) return failure(("cannot listen on 127.0.0.1:" + std::to_string(port_)).c_str(), errno);
    uint16_t port = bound_port(v4.get());
    Descriptor v6 = listen_on(AF_INET6, port);
    int error = v6 ? 0 : errno;
    // If port_ is 0, the kernel chooses a port that is free for IPv4. If this port is in use for IPv6, try again.
    if (error == EADDRINUSE && port_ == 0 && attempt < 16) continue;
    if (error == EADDRINUSE) return failure(("cannot listen on [::1]:" + std::to_string(port)).c_str(), error);
    if (error != 0) ORVANE_LOG_DEFAULT(default_log(), "proxy: no IPv6: %s", std::strerror(error));
    listeners_.push_back(std::move(v4));
    if (v6) listeners_.push_back(std::move(v6));
    port_ = port;
    return std::nullopt;
  }
}

void Proxy::accept() {
  std::vector<pollfd> entries;
  for (const Descriptor& listener : listeners_) entries.push_back({listener.get(), POLLIN, 0});
  ListEdits& edits = ListEdits::shared();
  // poll(2) ignores the descriptor -1.
  entries.push_back({endOpenConnections_ ? edits.descriptor() : -1, POLLIN, 0});
  for (;;) {
    const Wait waited = wait_for(entries, stop_.get(), deadline_after(limits_.idle / 8));
    if (waited == Wait::Stopped) return;
    shared_->places.endIdle(limits_.idle);
    if (waited != Wait::Ready) continue;
    if (entries.back().revents != 0) {
      edits.take();
      shared_->places.review();
    }
    for (const pollfd& entry : std::span(entries).first(listeners_.size())) {
      if (entry.revents == 0) continue;
      Descriptor client(accept4(entry.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (client) {
        serve(std::move(client));
      } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The client stays in the kernel's backlog, so the listening socket stays readable, and the loop would repeat
        // at once. Give the system time to free resources.
        wait_for({}, stop_.get(), deadline_after(100ms));
      }
    }
  }
}

void Proxy::serve(Descriptor client) {
  ProxyPlace* place = shared_->places.take(user_of_client(client));
  if (place == nullptr) return;
  try {
    std::thread([shared = shared_, place, client = std::move(client)]() mutable {
      try {
        serve_proxy_connection(shared->context, *place, std::move(client));
      } catch (const std::exception& error) {
        ORVANE_LOG_ERROR(default_log(), "proxy: a connection ended early: %s", error.what());
      }
      shared->places.leave(place);
    }).detach();
  } catch (const std::system_error& error) {
    ORVANE_LOG_ERROR(default_log(), "proxy: no thread for a connection: %s", error.what());
    shared_->places.leave(place);
  }
}

void Proxy::stop() {
  if (!acceptor_.joinable()) return;
  eventfd_write(stop_.get(), 1);
  acceptor_.join();
  listeners_.clear();
  shared_->places.endAll(1s);
}

}  // namespace orvane

#include "platform/linux/base/SocketIO.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

namespace orvane {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr auto kConnectTime = 30s;
constexpr auto kNextAttempt = 250ms;
constexpr auto kLingerTime = 2s;
constexpr size_t kLingerBytes = 16 << 20;

int poll_time(const Deadline& deadline) {
  if (!deadline) return -1;
  auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - steady_clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

Deadline earlier(const Deadline& left, const Deadline& right) { return std::min(*left, *right); }

// Concurrent attempts to connect to one host.
class Attempts {
 public:
  Attempts(const addrinfo* addresses, int stop) : next_(addresses), stop_(stop) {}

  Connected run() {
    Deadline end = deadline_after(kConnectTime);
    for (;;) {
      if (next_ != nullptr && (open_.empty() || steady_clock::now() >= *nextAttempt_)) start();
      if (winner_) return {std::move(winner_), {}};
      if (open_.empty() && next_ == nullptr) return {{}, reason()};
      if (open_.empty()) continue;
      switch (wait_for(open_, stop_, next_ == nullptr ? end : earlier(end, nextAttempt_))) {
        case Wait::Stopped:
          return {{}, "the proxy ends the connection"};
        case Wait::TimedOut:
          if (steady_clock::now() >= *end) return {{}, "the host does not answer"};
          break;
        case Wait::Ready:
          collect();
          break;
      }
    }
  }

  ~Attempts() {
    for (const pollfd& attempt : open_) close(attempt.fd);
  }
  Attempts(const Attempts&) = delete;
  Attempts& operator=(const Attempts&) = delete;

 private:
  void start() {
    const addrinfo* address = std::exchange(next_, next_->ai_next);
    nextAttempt_ = deadline_after(kNextAttempt);
    Descriptor attempt(socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (attempt && connect(attempt.get(), address->ai_addr, address->ai_addrlen) == 0) {
      winner_ = std::move(attempt);
    } else if (attempt && errno == EINPROGRESS) {
      open_.push_back({attempt.get(), POLLOUT, 0});
      attempt.detach();
    } else {
      error_ = errno;
    }
  }

  // Looks at the attempts that have ended: takes the first socket that is connected, and closes the sockets that
  // failed.
  void collect() {
    for (size_t i = 0; i < open_.size() && !winner_;) {
      if (open_[i].revents == 0) {
        ++i;
        continue;
      }
      Descriptor attempt(open_[i].fd);
      open_.erase(open_.begin() + static_cast<ptrdiff_t>(i));
      int error = 0;
      socklen_t size = sizeof error;
      getsockopt(attempt.get(), SOL_SOCKET, SO_ERROR, &error, &size);
      if (error == 0) {
        winner_ = std::move(attempt);
      } else {
        error_ = error;
        nextAttempt_ = steady_clock::now();
      }
    }
  }

  std::string reason() const { return std::generic_category().message(error_); }

  const addrinfo* next_;
  int stop_;
  std::vector<pollfd> open_;
  Deadline nextAttempt_;
  Descriptor winner_;
  int error_ = ENOENT;
};

}  // namespace

Deadline deadline_after(std::chrono::milliseconds time) { return steady_clock::now() + time; }

Wait wait_for(std::span<pollfd> entries, int stop, Deadline deadline) {
  std::vector<pollfd> all(entries.begin(), entries.end());
  all.push_back({stop, POLLIN, 0});
  int count = 0;
  do {
    count = poll(all.data(), all.size(), poll_time(deadline));
    // Apart from EINTR, poll() can only fail with ENOMEM. Memory may become free, so the call is repeated.
    if (count < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  } while (count < 0);
  if (count == 0) return Wait::TimedOut;
  if (all.back().revents != 0) return Wait::Stopped;
  std::copy(all.begin(), all.end() - 1, entries.begin());
  return Wait::Ready;
}

bool send_all(int socket, std::string_view bytes, int stop, Deadline deadline) {
  while (!bytes.empty()) {
    ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno != EAGAIN) return false;
    pollfd entry{socket, POLLOUT, 0};
    if (wait_for({&entry, 1}, stop, deadline) != Wait::Ready) return false;
  }
  return true;
}

void reset_connection(Descriptor socket) {
  linger discard{1, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
}

void close_gently(Descriptor socket, int stop) {
  shutdown(socket.get(), SHUT_WR);
  Deadline end = deadline_after(kLingerTime);
  char scratch[16384];
  for (size_t total = 0; total < kLingerBytes;) {
    pollfd entry{socket.get(), POLLIN, 0};
    if (wait_for({&entry, 1}, stop, end) != Wait::Ready) return;
    ssize_t count = recv(socket.get(), scratch, sizeof scratch, 0);
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return;
    if (count > 0) total += static_cast<size_t>(count);
  }
}

std::optional<SocketEnds> socket_ends(int socket) {
  SocketEnds ends;
  socklen_t localSize = sizeof ends.local;
  socklen_t peerSize = sizeof ends.peer;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&ends.local), &localSize) != 0 ||
      getpeername(socket, reinterpret_cast<sockaddr*>(&ends.peer), &peerSize) != 0) {
    return std::nullopt;
  }
  return ends;
}

Connected connect_to_any(const addrinfo* addresses, int stop) { return Attempts(addresses, stop).run(); }

Connected connect_to_host(const std::string& host, uint16_t port, int stop) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (status != 0) return {{}, std::string("the name cannot be resolved: ") + gai_strerror(status)};
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
  return connect_to_any(addresses.get(), stop);
}

}  // namespace orvane

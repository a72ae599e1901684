#include "platform/linux/control/SocketEventPort.h"

#include <poll.h>

#include <climits>

namespace orvane {
namespace {

kj::TimePoint now() { return kj::systemPreciseMonotonicClock().now(); }

}  // namespace

SocketEventPort::SocketEventPort(int socket) : socket_(socket), timer_(now()) {}

kj::Promise<void> SocketEventPort::await(Waiting* waiting) {
  auto pair = kj::newPromiseAndFulfiller<void>();
  *waiting = kj::mv(pair.fulfiller);
  return kj::mv(pair.promise);
}

bool SocketEventPort::isHungUp() const {
  pollfd watched{socket_, 0, 0};  // poll() reports POLLHUP even if no events are requested
  return ::poll(&watched, 1, 0) > 0;
}

kj::Promise<void> SocketEventPort::afterDelay(kj::Duration delay) {
  timer_.advanceTo(now());
  return timer_.afterDelay(delay);
}

bool SocketEventPort::wait() {
  uint64_t forever = UINT64_MAX;
  uint64_t timeout = timer_.timeoutToNextEvent(now(), kj::MILLISECONDS, INT_MAX).orDefault(forever);
  pollFor(timeout == forever ? -1 : static_cast<int>(timeout));
  return false;  // true would mean that another thread has woken this port, but no other thread uses it
}

bool SocketEventPort::poll() {
  pollFor(0);
  return false;
}

void SocketEventPort::pollFor(int milliseconds) {
  pollfd watched{socket_, 0, 0};
  if (reading_ != nullptr) watched.events |= POLLIN | POLLRDHUP;
  if (writing_ != nullptr) watched.events |= POLLOUT;
  // If nobody waits for the socket, poll() must not watch it: poll() reports POLLHUP even if no events are requested,
  // so a thread that waits only for a timer would never sleep.
  if (watched.events == 0) watched.fd = -1;
  if (::poll(&watched, 1, milliseconds) > 0) {
    constexpr int kFailure = POLLHUP | POLLERR | POLLNVAL;
    auto fulfill = [](Waiting& waiting) {
      KJ_IF_MAYBE (fulfiller, waiting) (*fulfiller)->fulfill();
      waiting = nullptr;
    };
    if (watched.revents & (POLLIN | POLLRDHUP | kFailure)) fulfill(reading_);
    if (watched.revents & (POLLOUT | kFailure)) fulfill(writing_);
  }
  timer_.advanceTo(now());
}

}  // namespace orvane

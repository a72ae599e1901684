#include "companion/client/CallTimeout.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <limits>

namespace orvane {
namespace {

// The time between two signals. The signal is repeated, because a signal that arrives just before connect(2) starts to
// wait, or before watch() is called, has no effect.
constexpr suseconds_t kTick = 200000;  // microseconds

// Read by the signal handler.
std::atomic<int> call_descriptor = -1;
std::atomic<int64_t> call_deadline = std::numeric_limits<int64_t>::max();  // steady clock, nanoseconds
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<int64_t>::is_always_lock_free);

int64_t steady_now() { return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count(); }

void on_tick(int) {
  int saved = errno;
  if (int connection = call_descriptor; connection >= 0 && steady_now() >= call_deadline)
    shutdown(connection, SHUT_RDWR);
  errno = saved;
}

void tick_every(suseconds_t period) {
  const itimerval ticking{{0, period}, {0, period}};
  setitimer(ITIMER_REAL, &ticking, nullptr);
}

}  // namespace

CallTimeout::CallTimeout(std::chrono::milliseconds timeout) {
  call_deadline = steady_now() + std::chrono::nanoseconds(timeout).count();
  // SA_RESTART is not set: connect(2) waits while the extension's queue of connections is full, and a signal must make
  // connect(2) return with EINTR.
  struct sigaction action = {};
  action.sa_handler = on_tick;
  sigaction(SIGALRM, &action, nullptr);
  tick_every(kTick);
}

CallTimeout::~CallTimeout() {
  tick_every(0);
  std::signal(SIGALRM, SIG_IGN);  // the last SIGALRM may still be pending
  call_descriptor = -1;
}

void CallTimeout::watch(int connection) { call_descriptor = connection; }

bool CallTimeout::hasExpired() const { return steady_now() >= call_deadline; }

}  // namespace orvane

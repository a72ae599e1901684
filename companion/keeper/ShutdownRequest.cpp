#include "companion/keeper/ShutdownRequest.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace orvane {
namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Used by the signal handler.
std::atomic<bool> is_made;
std::atomic<bool> exits_at_once;
std::atomic<int> wake_descriptor = -1;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void on_signal(int) {
  if (exits_at_once) _exit(0);
  int saved = errno;
  is_made = true;
  uint64_t one = 1;
  [[maybe_unused]] ssize_t written = write(wake_descriptor, &one, sizeof one);
  errno = saved;
}

}  // namespace

ShutdownRequest::ShutdownRequest() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  is_made = exits_at_once = false;
  wake_descriptor = wake_.get();
  struct sigaction action = {};
  action.sa_handler = on_signal;
  for (int number : kSignals) sigaction(number, &action, nullptr);
}

ShutdownRequest::~ShutdownRequest() {
  for (int number : kSignals) std::signal(number, SIG_DFL);
  wake_descriptor = -1;
}

bool ShutdownRequest::isMade() const { return is_made; }

void ShutdownRequest::exitAtOnce(bool enabled) {
  exits_at_once = enabled;
  if (enabled && is_made) _exit(0);
}

}  // namespace orvane

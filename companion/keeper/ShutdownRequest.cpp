#include "companion/keeper/ShutdownRequest.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <utility>

namespace orvane {
namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Used by the signal handler.
std::atomic<bool> is_made;
std::atomic<bool> exits_at_once;
std::atomic<int> wake_descriptor = -1;
std::atomic<const ShutdownRequest*> current = nullptr;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
              std::atomic<const ShutdownRequest*>::is_always_lock_free);

void exit_now() {
  current.load()->removeFiles();
  _exit(0);
}

void on_signal(int) {
  if (exits_at_once) exit_now();
  int saved = errno;
  is_made = true;
  uint64_t one = 1;
  [[maybe_unused]] ssize_t written = write(wake_descriptor, &one, sizeof one);
  errno = saved;
}

}  // namespace

ShutdownRequest::ShutdownRequest(std::vector<std::string> files)
    : files_(std::move(files)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  current = this;
  is_made = exits_at_once = false;
  wake_descriptor = wake_.get();
  struct sigaction action = {};
  action.sa_handler = on_signal;
  for (int number : kSignals) sigaction(number, &action, nullptr);
}

ShutdownRequest::~ShutdownRequest() {
  for (int number : kSignals) std::signal(number, SIG_DFL);
  wake_descriptor = -1;
  current = nullptr;
}

void ShutdownRequest::removeFiles() const {
  for (const std::string& file : files_) unlink(file.c_str());
}

bool ShutdownRequest::isMade() const { return is_made; }

void ShutdownRequest::exitAtOnce(bool enabled) {
  exits_at_once = enabled;
  if (enabled && is_made) exit_now();
}

}  // namespace orvane

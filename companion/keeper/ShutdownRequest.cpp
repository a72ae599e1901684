#include "companion/keeper/ShutdownRequest.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
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
  [[maybe_unused]] ssize_t written = write(wake_descriptor, "", 1);
  errno = saved;
}

}  // namespace

ShutdownRequest::ShutdownRequest(std::vector<std::string> files) : files_(std::move(files)) {
  std::array<int, 2> ends{-1, -1};
  if (pipe(ends.data()) == 0) {
    wake_ = Descriptor(ends[0]);
    writingEnd_ = Descriptor(ends[1]);
  }
  for (const int end : ends) {
    fcntl(end, F_SETFD, FD_CLOEXEC);
    fcntl(end, F_SETFL, O_NONBLOCK);
  }
  current = this;
  is_made = exits_at_once = false;
  wake_descriptor = ends[1];
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

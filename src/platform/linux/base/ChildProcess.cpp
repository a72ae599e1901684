#include "platform/linux/base/ChildProcess.h"

#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace orvane {

bool ChildProcess::start(const char* name, std::vector<int> kept, const std::function<void()>& run) {
  std::sort(kept.begin(), kept.end());
  descriptor_.reset();
  process_ = ::fork();
  if (process_ == 0) {
    ::setsid();
    ::prctl(PR_SET_NAME, name);
    ::signal(SIGTERM, SIG_IGN);
    int next = 0;
    for (int each : kept) {
      if (each > next) ::close_range(static_cast<unsigned>(next), static_cast<unsigned>(each - 1), 0);
      next = each + 1;
    }
    ::close_range(static_cast<unsigned>(next), ~0U, 0);
    run();
    ::_exit(0);
  }
  if (process_ > 0) descriptor_ = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  return process_ > 0;
}

bool ChildProcess::hasEnded() {
  if (process_ <= 0 || ::waitpid(process_, nullptr, WNOHANG) != process_) return false;
  process_ = -1;
  return true;
}

void ChildProcess::kill() {
  if (process_ > 0) ::kill(process_, SIGKILL);
}

void ChildProcess::wait() {
  while (process_ > 0 && ::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
}

}  // namespace orvane

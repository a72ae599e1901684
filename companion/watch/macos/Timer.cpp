#include "companion/watch/Timer.h"

#include <fcntl.h>
#include <notify.h>
#include <sys/event.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <system_error>

namespace orvane {
namespace {

constexpr uintptr_t kTimer = 1;  // identifies the timer in the queue

}  // namespace

Timer::Timer(Clock clock) : clock_(clock), timer_(kqueue()) {
  if (!timer_) throw std::system_error(errno, std::generic_category(), "kqueue");
  fcntl(timer_.get(), F_SETFD, FD_CLOEXEC);
  if (clock != Clock::Wall) return;
  int notifications = -1, token = 0;
  if (notify_register_file_descriptor("com.apple.system.clock_set", &notifications, 0, &token) != NOTIFY_STATUS_OK)
    return;
  clockSet_ = Descriptor(notifications);
  fcntl(notifications, F_SETFD, FD_CLOEXEC);
  fcntl(notifications, F_SETFL, O_NONBLOCK);
  struct kevent event = {};
  EV_SET(&event, static_cast<uintptr_t>(notifications), EVFILT_READ, EV_ADD, 0, 0, nullptr);
  kevent(timer_.get(), &event, 1, nullptr, 0, nullptr);
}

void Timer::set(std::chrono::seconds moment) {
  // The system counts the time until the moment also while the Mac sleeps.
  uint32_t flags = NOTE_SECONDS | NOTE_MACH_CONTINUOUS_TIME;
  int64_t time = moment.count();
  if (clock_ == Clock::Wall) {
    flags |= NOTE_ABSOLUTE;
  } else {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    time -= now.tv_sec;
  }
  struct kevent event = {};
  EV_SET(&event, kTimer, EVFILT_TIMER, EV_ADD | EV_ONESHOT, flags, std::max<int64_t>(time, 1), nullptr);
  kevent(timer_.get(), &event, 1, nullptr, 0, nullptr);
}

void Timer::stop() {
  struct kevent event = {};
  EV_SET(&event, kTimer, EVFILT_TIMER, EV_DELETE, 0, 0, nullptr);
  kevent(timer_.get(), &event, 1, nullptr, 0, nullptr);
}

bool Timer::wasSet() {
  constexpr timespec kNoWait{};
  std::array<struct kevent, 2> events;
  kevent(timer_.get(), nullptr, 0, events.data(), static_cast<int>(events.size()), &kNoWait);
  bool isSet = false;
  int token = 0;  // each notification is a token
  while (clockSet_ && read(clockSet_.get(), &token, sizeof token) > 0) isSet = true;
  return isSet;
}

}  // namespace orvane

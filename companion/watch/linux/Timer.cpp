#include "companion/watch/Timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace orvane {

Timer::Timer(Clock clock)
    : clock_(clock),
      timer_(timerfd_create(clock == Clock::Wall ? CLOCK_REALTIME : CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!timer_) throw std::system_error(errno, std::generic_category(), "timerfd_create");
}

void Timer::set(std::chrono::seconds moment) {
  itimerspec when{};
  when.it_value.tv_sec = std::max<time_t>(moment.count(), 1);
  const int reportsClockSet = clock_ == Clock::Wall ? TFD_TIMER_CANCEL_ON_SET : 0;
  timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | reportsClockSet, &when, nullptr);
}

void Timer::stop() {
  const itimerspec never{};
  timerfd_settime(timer_.get(), 0, &never, nullptr);
}

bool Timer::wasSet() {
  uint64_t expirations = 0;
  return read(timer_.get(), &expirations, sizeof expirations) < 0 && errno == ECANCELED;
}

}  // namespace orvane

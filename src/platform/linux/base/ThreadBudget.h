#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>

namespace orvane {

// An amount of processor time that the calling thread may use. The time during which the thread waits for a processor
// does not count: otherwise another user could use up the budget by keeping the machine busy.
class ThreadBudget {
 public:
  explicit ThreadBudget(std::chrono::nanoseconds time) : begin_(now()), time_(time) {}

  std::chrono::nanoseconds used() const { return now() - begin_; }
  // This makes a system call, so call it only before a step that takes some microseconds or more.
  bool isSpent() const { return used() >= time_; }
  std::chrono::nanoseconds left() const { return std::max(time_ - used(), std::chrono::nanoseconds(0)); }

 private:
  static std::chrono::nanoseconds now() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }

  std::chrono::nanoseconds begin_, time_;
};

// Processor time that may be used for one user: at most `most` at once, and a fifth of the time on average.
class ThreadCredit {
 public:
  using Clock = std::chrono::steady_clock;

  ThreadCredit(std::chrono::nanoseconds most, Clock::time_point now) : most_(most), left_(most), since_(now) {}

  bool isSpent(Clock::time_point now) {
    left_ = std::min(most_, left_ + (now - since_) / 5);
    since_ = now;
    return left_ <= std::chrono::nanoseconds(0);
  }
  void use(std::chrono::nanoseconds time) { left_ -= time; }

 private:
  std::chrono::nanoseconds most_, left_;  // left_ is negative after more than was left has been used
  Clock::time_point since_;
};

}  // namespace orvane

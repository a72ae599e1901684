#pragma once

#include <chrono>

#include "platform/files/Descriptor.h"

namespace orvane {

// A timer for poll(2). If the machine sleeps past the timer's moment, the timer fires after the sleep. A timer of the
// clock Wall also fires when the clock is set.
class Timer {
 public:
  enum class Clock {
    Wall,     // CLOCK_REALTIME
    Running,  // counts from the start of the system, also while it sleeps: CLOCK_BOOTTIME, on macOS CLOCK_MONOTONIC
  };
  explicit Timer(Clock clock);  // throws std::system_error
  int descriptor() const { return timer_.get(); }

  // `moment`: on the timer's clock.
  void set(std::chrono::seconds moment);
  void stop();
  // Call when the descriptor is readable. Returns whether the clock was set.
  bool wasSet();

 private:
  const Clock clock_;
  Descriptor timer_;
  Descriptor clockSet_;  // only on macOS: readable when the clock was set
};

}  // namespace orvane

#pragma once

#include <chrono>
#include <ctime>

#include "platform/files/Descriptor.h"

namespace orvane {

// A timer for poll(2). If the machine sleeps past the timer's moment, the timer fires after the sleep. A timer of
// CLOCK_REALTIME also fires when the clock is set.
class Timer {
 public:
  explicit Timer(clockid_t clock);
  int descriptor() const { return timer_.get(); }

  // `moment`: on the timer's clock.
  void set(std::chrono::seconds moment);
  void stop();
  // Call when the descriptor is readable. Returns whether the clock was set.
  bool wasSet();

 private:
  Descriptor timer_;
};

}  // namespace orvane

#pragma once

#include <chrono>

namespace orvane {

// An absolute time is a number of seconds since this moment.
inline constexpr std::chrono::sys_days kAbsoluteTimeReference = std::chrono::year(2001) / std::chrono::January / 1;

// The current absolute time by the wall clock.
double absolute_time_get_current();

}  // namespace orvane

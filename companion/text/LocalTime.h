#pragma once

#include <chrono>
#include <ctime>
#include <optional>

#include "companion/text/TimeText.h"

// The wall clock and the calendar of a time zone.
namespace orvane {

// What a wall clock shows, without a time zone.
using LocalTime = std::chrono::local_seconds;

std::tm local_fields(Moment moment);

// The time zone of a text: the given offset from UTC, or without one, the local zone.
struct Zone {
  std::optional<std::chrono::seconds> offset{};

  LocalTime local(Moment moment) const;
  // If a change of the clocks skips or repeats `local`, uses the offset from before the change (RFC 5545, section
  // 3.3.5).
  Moment moment(LocalTime local) const;
};

// The same day of a later month, or its last day if the month is too short.
std::chrono::local_days months_later(std::chrono::local_days day, std::chrono::months count);

}  // namespace orvane

#pragma once

#include <optional>
#include <string_view>

namespace orvane {

// Reads a date and time as in RFC 3339, section 5.6: "2030-01-31T17:00:00.5+01:00". A space may replace the T. A leap
// second is read as the second that follows it. Returns the absolute time (Clock.h); nothing for any other text, and
// for a day that the calendar does not have.
std::optional<double> absolute_time_of_text(std::string_view text);

}  // namespace orvane

#pragma once

#include <string_view>

#include "platform/Value.h"

namespace orvane {

// The moment until which a host is not blocked, as a property's key.
inline constexpr std::string_view kDontBlockUntil = "DontBlockUntil";

// A moment written as RFC 3339 has it, "2030-01-31T18:00:00+01:00"; fractions of a second are kept, a space may stand
// in place of the T. Throws InputError for anything else, also for a day that the calendar does not have.
Value parse_time(std::string_view text);

// The properties of a host from a JSON object (RFC 8259). Booleans, numbers, strings, arrays and objects become what
// they are called; {"$date": "2030-01-31T18:00:00Z"} becomes a date, and so does the string under "DontBlockUntil" at
// the top. A property has no null. Throws InputError for what is no JSON, no object, or has a "DontBlockUntil" that is
// no date: the extension would take that for no date at all and go on blocking.
Value parse_properties(std::string_view json);

}  // namespace orvane

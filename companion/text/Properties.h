#pragma once

#include <string_view>

#include "platform/Value.h"

namespace orvane {

// The key of the property whose value is the date at which a host's suspension ends.
inline constexpr std::string_view kDontBlockUntil = "DontBlockUntil";

// Reads a time in RFC 3339, as in "2030-01-31T18:00:00+01:00", into a date; a fraction of a second is kept. Throws
// InputError for any other text (see platform/DateText.h).
Value parse_time(std::string_view text);

// Reads a host's properties from a JSON object (RFC 8259):
//
//   JSON                                         property
//   boolean, number, string, array, object       the same type
//   {"$date": "2030-01-31T18:00:00Z"}            a date
//   a string under "DontBlockUntil", top level   a date
//
// Throws InputError for text that is not a JSON object, for null, for nesting deeper than 16 levels, and for a
// "DontBlockUntil" that is not a time: the extension would ignore such a property and go on blocking.
Value parse_properties(std::string_view json);

}  // namespace orvane

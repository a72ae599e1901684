#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace orvane {

// A moment of the wall clock, in whole seconds, UTC.
using Moment = std::chrono::sys_seconds;

Moment now_in_seconds();

// As files and programs have it: "2030-01-31T17:00:00Z" (RFC 3339). The years go from 0 to 9999.
std::string time_text(Moment moment);

// The moment that an RFC 3339 text names; a fraction of a second counts as a whole one. Throws InputError for what is
// no such text, or outside of the years that time_text() can write.
Moment read_moment(std::string_view text);

// A length of time as people type it: numbers with s, m, h, d or w (seconds to weeks; min, hours and the like, too), as
// in "90s", "1h30m" or "1 h 30 min". Throws InputError for anything else, and for more than ten years.
std::chrono::seconds read_duration(std::string_view text);

// A moment after `now` as people type it, in the local time zone: "18:00" (the next time that the clock shows it),
// "2026-12-24 18:00", "2026-12-24" (when that day begins), "tomorrow 9:00", "tomorrow", "today 18:00"; or RFC 3339. A
// time that a change of the clocks leaves out counts as if the change had not come, and of one that it repeats the
// first is meant (as RFC 5545, section 3.3.5, has it). Throws InputError for anything else, for what has passed, and
// for what is more than ten years away.
Moment read_until(std::string_view text, Moment now);

// For people, in the local time zone: "18:00", "tomorrow 09:00" or "2026-12-24 18:00", with seconds where they are not
// 0.
std::string local_text(Moment moment, Moment now);

// For people: "29 min", "1 h 30 min", "2 days 3 h", "45 s".
std::string duration_text(std::chrono::seconds duration);

// For people, of something that is suspended: "until 18:00 (30 min left)".
std::string suspension_text(Moment until, Moment now);

}  // namespace orvane

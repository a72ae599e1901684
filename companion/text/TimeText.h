#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// A moment of the wall clock, UTC, in whole seconds.
using Moment = std::chrono::sys_seconds;

Moment now_in_seconds();

// The form for files and programs: "2030-01-31T17:00:00Z" (RFC 3339). `moment` is in the years 0 to 9999.
std::string time_text(Moment moment);

// Reads RFC 3339; a fraction of a second is rounded up. Throws InputError for any other text, and for a moment outside
// the years that time_text() can write.
Moment read_moment(std::string_view text);

// Reads a duration as people type it: numbers with s, m, h, d or w (or words: min, hours, week), as in "90s", "1h30m",
// "1 h 30 min" or "an hour". Throws InputError for any other text, for zero and for more than ten years.
std::chrono::seconds read_duration(std::string_view text);

// The moment that is a duration after `now`. Also reads months and years, as in "2 months". Such a duration ends at the
// same time of day on the same day of a later month in the local time zone, or on its last day if the month is too
// short. Throws as read_duration() does.
Moment read_end(std::string_view duration, Moment now);

// Reads the end of a time span as people type it, in the local time zone or in RFC 3339. Upper and lower case are
// equal.
//
//   18:00, 6pm, noon, midnight, 24:00    the next moment at which the clock shows this time
//   2026-12-24, 24 Dec, monday           the start of that day; without a year or a date, of the next such day
//   today, or its date                   the end of today
//   2026-12-24 18:00, friday 5pm         a day and a time, in any order; "at" and "on" may precede them
//   monday next week                     that day of the week that begins on the next Monday
//   18:00 UTC, 18:00Z, 18:00+01:00       a time in that zone; a day in the text is a day of that zone
//   2h, in 2 months, now + 1h30m         a duration from `now` (read_end())
//   friday 17:00 + 2 hours               a duration from another moment, which may have passed
//   @1800000000                          Unix time
//
// Some texts can be read in several ways:
//
//   tomorrow, next week, month or year   its start; or the present time of day, one day, week, month or year later
//   next friday                          the first Friday after today; or the Friday of the next week (from Monday)
//   friday midnight                      the start of that day; or its end
//   18:00 + 2 hours (at 19:00)           20:00; or 20:00 tomorrow
//
// Returns all readings after `now`, in order; readings at most an hour apart count as one, the first. When the clocks
// change, a time that occurs twice means its first occurrence, and a time that is skipped is read with the UTC offset
// from before the change (RFC 5545, section 3.3.5). Throws InputError for any other text, and if no reading is after
// `now` or a reading is more than ten years after it.
std::vector<Moment> read_until(std::string_view text, Moment now);

// Reads a moment that has passed, as people type it:
//
//   today, yesterday, monday, 24 Dec     the start of that day: of the last such day, today included
//   18:00, yesterday 6pm                 a day and a time, as for read_until(); or the last time the clock showed this
//   2h, 30 min ago, 2 months ago         a duration before `now`
//
// and RFC 3339. Throws InputError for any other text, and for a moment after `now`.
Moment read_past(std::string_view text, Moment now);

// For people, in the local time zone: "18:00", "tomorrow 09:00" or "Thu 2026-12-24 18:00"; with seconds unless they are
// 0. read_until() can read back the text of a moment after `now`.
std::string local_text(Moment moment, Moment now);

// For people: "29 min", "1 h 30 min", "2 days 3 h", "45 s". "0 s" for a negative duration, because the moment that it
// leads to has just passed.
std::string duration_text(std::chrono::seconds duration);

// For people, the end of a suspension or of a lock: "until 18:00 (30 min left)".
std::string suspension_text(Moment until, Moment now);

}  // namespace orvane

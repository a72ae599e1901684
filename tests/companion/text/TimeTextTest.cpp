#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "companion/text/Input.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

// In Berlin the clocks went from 2:00 to 3:00 on 2026-03-29, and from 3:00 back to 2:00 on 2026-10-25.
TEST(TimeText, ReadsTimesAsPeopleTypeThem) {
  setenv("TZ", "Europe/Berlin", 1);
  const char* const kCases[][3] = {
      {"2026-03-28T12:00:00Z", "18:00", "2026-03-28T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "13:00", "2026-03-29T11:00:00Z"},
      {"2026-03-28T12:00:00Z", "tomorrow 2:30", "2026-03-29T01:30:00Z"},
      {"2026-10-24T12:00:00Z", "tomorrow 2:30:15", "2026-10-25T00:30:15Z"},
      {"2026-10-24T12:00:00Z", " tomorrow ", "2026-10-24T22:00:00Z"},
      {"2026-03-28T12:00:00Z", "today 18:00", "2026-03-28T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24 18:00", "2026-12-24T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24T18:00", "2026-12-24T17:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24", "2026-12-23T23:00:00Z"},
      {"2026-03-28T12:00:00Z", "2026-12-24 18:00:00.5+01:00", "2026-12-24T17:00:01Z"},
  };
  for (const auto& [now, text, moment] : kCases)
    EXPECT_EQ(time_text(read_until(text, read_moment(now))), moment) << now << " " << text;
  const Moment now = read_moment("2026-03-28T12:00:00Z");
  for (const char* text :
       {"", "18", "24:00", "6:60", "today 9:00", "2026-02-30", "2026-03-28 13:00", "2037-01-01", "18:00x", "never"})
    EXPECT_THROW(read_until(text, now), InputError) << text;
  EXPECT_EQ(local_text(read_moment("2026-03-29T01:30:00Z"), now), "tomorrow 03:30");
}

TEST(TimeText, ReadsDurationsAsPeopleTypeThem) {
  const std::pair<const char*, int64_t> kDurations[] = {
      {"90s", 90}, {"30m", 1800}, {"1h30m", 5400}, {" 1 h 30 min ", 5400}, {"2d", 172800}, {"1w", 604800}};
  for (const auto& [text, seconds] : kDurations) EXPECT_EQ(read_duration(text).count(), seconds) << text;
  for (const char* text : {"", "30", "0m", "-5m", "1.5h", "3m x", "99999999999s", "999999999w", "3653d"})
    EXPECT_THROW(read_duration(text), InputError) << text;
}

}  // namespace
}  // namespace orvane

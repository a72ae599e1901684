#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "companion/text/Input.h"
#include "companion/text/TimeText.h"
#include "support/TimeZone.h"

namespace orvane {
namespace {

// In Berlin the clocks went from 2:00 to 3:00 on 2026-03-29, and from 3:00 back to 2:00 on 2026-10-25. 2026-11-18 is a
// Wednesday. Each row has the current time, a text, and the moments that the text may mean, in local time.
TEST(TimeText, ReadsTimesAsPeopleTypeThem) {
  const TimeZone zone("Europe/Berlin");
  constexpr const char *kSpring = "2026-03-28T12:00:00Z", *kAutumn = "2026-10-24T12:00:00Z",
                       *kEvening = "2026-11-18T20:31:00Z", *kPastMidnight = "2026-11-17T23:20:00Z";
  const std::tuple<const char*, const char*, const char*> kCases[] = {
      {kSpring, "18:00", "18:00"},
      {kSpring, "13:00", "tomorrow 13:00"},
      {kSpring, "tomorrow 2:30", "tomorrow 03:30"},
      {kAutumn, "tomorrow 2:30:15", "tomorrow 02:30:15"},
      {kAutumn, " tomorrow ", "tomorrow 00:00, tomorrow 14:00"},
      {kSpring, "today 18:00", "18:00"},
      {kEvening, "2026-12-24 18:00", "Thu 2026-12-24 18:00"},
      {kEvening, "2026-12-24T18:00", "Thu 2026-12-24 18:00"},
      {kEvening, "2026-12-24", "Thu 2026-12-24 00:00"},
      {kEvening, "2026-12-24 18:00:00.5+01:00", "Thu 2026-12-24 18:00:01"},
      {kEvening, "Thu 2026-12-24 18:00", "Thu 2026-12-24 18:00"},
      {kEvening, "24 Dec at 6 PM", "Thu 2026-12-24 18:00"},
      {kEvening, "dec 24, 2027, 6:30pm", "Fri 2027-12-24 18:30"},
      {kEvening, "1 november", "Mon 2027-11-01 00:00"},
      {kEvening, "29 feb", "Tue 2028-02-29 00:00"},
      {kEvening, "10pm", "22:00"},
      {kEvening, "12am", "tomorrow 00:00"},
      {kEvening, "noon", "tomorrow 12:00"},
      {kEvening, "midnight", "tomorrow 00:00"},
      {kEvening, "24:00", "tomorrow 00:00"},
      {kEvening, "friday 24:00", "Sat 2026-11-21 00:00"},
      {kEvening, "today", "tomorrow 00:00"},
      {kEvening, "2026-11-18", "tomorrow 00:00"},
      {kEvening, "tomorrow", "tomorrow 00:00, tomorrow 21:31"},
      {kPastMidnight, "tomorrow", "tomorrow 00:00"},
      {kEvening, "9am tomorrow", "tomorrow 09:00"},
      {kEvening, "tomorrow midnight", "tomorrow 00:00, Fri 2026-11-20 00:00"},
      {kEvening, "today midnight", "tomorrow 00:00"},
      {kEvening, "monday", "Mon 2026-11-23 00:00"},
      {kEvening, "this Wed", "Wed 2026-11-25 00:00"},
      {kEvening, "wednesday 22:00", "22:00"},
      {kEvening, "on friday at 17:00", "Fri 2026-11-20 17:00"},
      {kEvening, "next monday", "Mon 2026-11-23 00:00"},
      {kEvening, "next wednesday", "Wed 2026-11-25 00:00"},
      {kEvening, "next fri 5pm", "Fri 2026-11-20 17:00, Fri 2026-11-27 17:00"},
      {kEvening, "next week", "Mon 2026-11-23 00:00, Wed 2026-11-25 21:31"},
      {"2026-01-31T12:00:00Z", "next month", "tomorrow 00:00, Sat 2026-02-28 13:00"},
      {kEvening, "in 2 hours", "23:31"},
      {kEvening, "2h", "23:31"},
      {kEvening, "+90 min", "23:01"},
      {kEvening, "in an Hour", "22:31"},
      {kEvening, "2 months", "Mon 2027-01-18 21:31"},
      {kEvening, "in a year 1 day", "Fri 2027-11-19 21:31"},
      {"2026-01-31T12:00:00Z", "1 month", "Sat 2026-02-28 13:00"},
      {"2026-02-25T12:00:00Z", "a month 1h", "Wed 2026-03-25 14:00"},
      {kEvening, "10 years", "Tue 2036-11-18 21:31"},
      {"2027-10-28T12:00:00Z", "in 10 years", "Wed 2037-10-28 14:00"},  // from summer to winter time: an hour longer
      {kEvening, "next year", "Fri 2027-01-01 00:00, Thu 2027-11-18 21:31"},
      {kEvening, "now + 2 hours", "23:31"},
      {kEvening, "tomorrow + 2 hours", "tomorrow 02:00, tomorrow 23:31"},
      {kEvening, "friday 17:00 + 1 week", "Fri 2026-11-27 17:00"},
      {kEvening, "today 18:00 + 4 hours", "22:00"},
      {kEvening, "18:00 + 4 hours", "22:00, tomorrow 22:00"},
      {kEvening, "18:00 + 3 hours", "tomorrow 21:00"},
      {kEvening, "22:00 + 1 week", "Wed 2026-11-25 22:00"},
      {kEvening, "wed + 1 week", "Wed 2026-11-25 00:00, Wed 2026-12-02 00:00"},
      {kEvening, "1 nov + 1 month", "Tue 2026-12-01 00:00, Wed 2027-12-01 00:00"},
      {"2026-01-28T12:00:00Z", "friday midnight + 1 month", "Sat 2026-02-28 00:00"},
      {kEvening, "22:00 UTC", "23:00"},
      {kEvening, "20:45Z", "21:45"},
      {kEvening, "1:00+05:30", "tomorrow 20:30"},
      {kEvening, "24 dec 18:00 utc-5", "Fri 2026-12-25 00:00"},
      {kPastMidnight, "today 23:50Z", "00:50"},
      {kEvening, "2026-12-24 18:00Z", "Thu 2026-12-24 19:00"},
      {kEvening, "@1800000000", "Fri 2027-01-15 09:00"},
      {"2030-01-01T00:00:00Z", "@2147483648", "Tue 2038-01-19 04:14:08"},
      {kEvening, "10p.m.", "22:00"},
      {kEvening, "6:30 a.m. tomorrow", "tomorrow 06:30"},
      {kEvening, "20261224 18:00", "Thu 2026-12-24 18:00"},
      {kEvening, "monday next week", "Mon 2026-11-23 00:00"},
      {kEvening, "next week fri 9am", "Fri 2026-11-27 09:00"},
  };
  for (const auto& [given, text, readings] : kCases) {
    const Moment now = read_moment(given);
    std::string found;
    for (const Moment reading : read_until(text, now)) {
      found += (found.empty() ? "" : ", ") + local_text(reading, now);
      EXPECT_EQ(read_until(local_text(reading, now), now), std::vector{reading}) << text;
    }
    EXPECT_EQ(found, readings) << given << " " << text;
  }
  const Moment now = read_moment(kSpring);
  const std::pair<const char*, std::vector<const char*>> kRejected[] = {
      {"no such day or time",
       {"24:01", "6:60", "13pm", "0am", "2026-02-30", "fri 2026-03-30", "30 feb", "29 feb 2027", "20261324",
        "18:00+15:00"}},
      {"past, or too far away",
       {"today 9:00", "today 9:00 + 4 hours", "2026-03-28 13:00", "2037-01-01", "11 years", "@9999999999"}},
      {"incomplete", {"", "18", "1800", "now", "next", "in 5", "at", "+", "now + 2", "18:00+2", "2026122", "@"}},
      {"other words", {"18:00x", "never", "monday tuesday", "9am 10am", "18:00 CET", "next hour", "@x"}},
  };
  for (const auto& [why, texts] : kRejected) {
    for (const char* text : texts) EXPECT_THROW(read_until(text, now), InputError) << why << ": " << text;
  }
  constexpr std::pair<const char*, const char*> kAdvice[] = {{"18", ": write 18:00 or 6pm"},
                                                             {"1800000000", ": for a Unix time, write @1800000000"}};
  for (const auto& [text, advice] : kAdvice) {
    try {
      read_until(text, now);
      ADD_FAILURE() << text;
    } catch (const InputError& error) {
      EXPECT_TRUE(std::string(error.what()).ends_with(advice)) << error.what();
    }
  }
  EXPECT_EQ(time_text(read_until("tomorrow 2:30", read_moment(kAutumn)).front()), "2026-10-25T00:30:00Z");
}

TEST(TimeText, ReadsTimesThatHavePassed) {
  const TimeZone zone("Europe/Berlin");
  const Moment now = read_moment("2026-11-18T20:31:00Z");
  const std::pair<const char*, const char*> kCases[] = {{"today", "2026-11-17T23:00:00Z"},
                                                        {"Yesterday 6pm", "2026-11-17T17:00:00Z"},
                                                        {"18:00", "2026-11-18T17:00:00Z"},
                                                        {"22:00", "2026-11-17T21:00:00Z"},
                                                        {"wed", "2026-11-17T23:00:00Z"},
                                                        {"friday 9:00", "2026-11-13T08:00:00Z"},
                                                        {"24 dec", "2025-12-23T23:00:00Z"},
                                                        {"29 feb", "2024-02-28T23:00:00Z"},
                                                        {"24:00", "2026-11-17T23:00:00Z"},
                                                        {"2026-07-01", "2026-06-30T22:00:00Z"},
                                                        {"90 min ago", "2026-11-18T19:01:00Z"},
                                                        {"2d", "2026-11-16T20:31:00Z"},
                                                        {"2 months ago", "2026-09-18T19:31:00Z"},
                                                        {"yesterday 23:30Z", "2026-11-17T23:30:00Z"},
                                                        {"2026-11-18 21:31", "2026-11-18T20:31:00Z"}};
  for (const auto& [text, moment] : kCases) EXPECT_EQ(time_text(read_past(text, now)), moment) << text;
  for (const char* text : {"", "tomorrow", "2026-11-18 21:32", "next friday", "ago", "never"})
    EXPECT_THROW(read_past(text, now), InputError) << text;
}

TEST(TimeText, ReadsDurationsAsPeopleTypeThem) {
  const std::pair<const char*, int64_t> kDurations[] = {
      {"90s", 90}, {"30m", 1800}, {"1h30m", 5400}, {" 1 h 30 min ", 5400}, {"2D", 172800}, {"1w", 604800}};
  for (const auto& [text, seconds] : kDurations) EXPECT_EQ(read_duration(text).count(), seconds) << text;
  for (const char* text : {"", "30", "0m", "-5m", "1.5h", "3m x", "99999999999s", "999999999w", "3654d", "2 months"})
    EXPECT_THROW(read_duration(text), InputError) << text;
  for (const char* text : {"10 years 520w", "10 years 1s"})
    EXPECT_THROW(read_end(text, read_moment("2026-11-18T20:31:00Z")), InputError) << text;
}

}  // namespace
}  // namespace orvane

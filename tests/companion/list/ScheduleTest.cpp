#include <gtest/gtest.h>

#include <array>
#include <ctime>
#include <iterator>
#include <utility>

#include "companion/list/Schedule.h"
#include "support/TimeZone.h"

namespace orvane {
namespace {

Schedule schedule_of(const std::vector<std::string>& texts) {
  Schedule schedule;
  std::string fault;
  for (const std::string& text : texts) EXPECT_TRUE(schedule.add(text, fault)) << text;
  return schedule;
}

TEST(Schedule, ReadsSpansAndWritesThemInOneForm) {
  const std::pair<const char*, const char*> kSpans[] = {
      {"Mon..Fri 09:00-17:00", "Mon..Fri 09:00-17:00"},
      {" sat,SUNDAY  22:00 - 2:00 ", "Sat,Sun 22:00-02:00"},
      {"9:00-17:30", "09:00-17:30"},
      {"Fri..Mon", "Mon,Fri..Sun 00:00-24:00"},
      {"Mon,Wed..Thu,Sat 00:00-24:00", "Mon,Wed,Thu,Sat 00:00-24:00"}};
  for (const auto& [text, written] : kSpans) {
    EXPECT_EQ(schedule_of({text}).texts(), std::vector<std::string>{written}) << text;
    EXPECT_EQ(schedule_of({text}), schedule_of({written})) << text;
  }
  Schedule schedule;
  std::string fault;
  for (const char* text : {"", "Mo 9:00-10:00", "Mon..", "Mon 9-17", "9:00", "9:00-9:00", "24:00-1:00", "0:00-24:01",
                           "Mon,,Tue 1:00-2:00", "1:00-2:00 x", "1:60-3:00"})
    EXPECT_FALSE(schedule.add(text, fault)) << text;
  for (size_t i = 0; i < Schedule::kMostSpans; ++i) EXPECT_TRUE(schedule.add("Mon", fault));
  EXPECT_FALSE(schedule.add("Tue", fault)) << "more spans than the keeper looks through in a moment";
}

// A span in the syntax of Schedule, and for is_in(), with begin and end as "HH:MM": such texts compare like the times.
struct Span {
  const char* text;
  const char *days, *begin, *end;  // `days`: one digit for each day, 1 for Monday
};

bool is_in(const Span& span, Moment moment) {
  const std::time_t time = moment.time_since_epoch().count();
  std::array<char, 32> day{}, clock{};
  std::tm* local = std::localtime(&time);
  std::strftime(day.data(), day.size(), "%u", local);
  std::strftime(clock.data(), clock.size(), "%H:%M", local);
  const std::string_view days = span.days, shown = clock.data();
  const char yesterday = day[0] == '1' ? '7' : static_cast<char>(day[0] - 1);
  if (std::string_view(span.begin) < span.end)
    return days.find(day[0]) != days.npos && shown >= span.begin && shown < span.end;
  return (days.find(day[0]) != days.npos && shown >= span.begin) ||
         (days.find(yesterday) != days.npos && shown < span.end);
}

// Compares the schedules with is_in() at each minute of ten days. In these days, the zone's clocks change.
TEST(Schedule, ChangesAtEachMinuteAtWhichTheClockEntersOrLeavesASpan) {
  const Span kSpans[] = {
      {"Mon..Fri 09:00-17:00", "12345", "09:00", "17:00"}, {"Sat,Sun 22:00-02:30", "67", "22:00", "02:30"},
      {"Sun 02:15-02:45", "7", "02:15", "02:45"},          {"Sun 01:30-03:00", "7", "01:30", "03:00"},
      {"Sat 23:00-01:15", "6", "23:00", "01:15"},          {"Sun 00:00-24:00", "7", "00:00", "24:00"}};
  const std::pair<const char*, const char*> kChanges[] = {{"Europe/Berlin", "2026-03-27T11:07:00Z"},
                                                          {"Europe/Berlin", "2026-10-23T11:07:00Z"},
                                                          {"America/New_York", "2026-03-06T11:07:00Z"},
                                                          {"America/New_York", "2026-10-30T11:07:00Z"},
                                                          {"Australia/Lord_Howe", "2026-04-03T11:07:00Z"}};
  constexpr std::chrono::minutes kLength = std::chrono::hours(24 * 10);
  for (const auto& [name, start] : kChanges) {
    const TimeZone zone(name);
    for (size_t i = 0; i < std::size(kSpans); ++i) {
      const Span &one = kSpans[i], &other = kSpans[(i + 1) % std::size(kSpans)];
      const Schedule schedule = schedule_of({one.text, other.text});
      const std::string where = std::string(name) + ", " + one.text + ", " + other.text + ", ";
      Moment change = read_moment(start);
      bool isActive = schedule.isActive(change);
      for (Moment at = change; at < read_moment(start) + kLength; at += std::chrono::minutes(1)) {
        const bool expected = is_in(one, at) || is_in(other, at);
        ASSERT_EQ(schedule.isActive(at), expected) << where << time_text(at);
        if (expected == isActive) continue;
        isActive = expected;
        for (Moment from : {change, at - std::chrono::seconds(1)}) {
          const auto next = schedule.nextChange(from);
          ASSERT_TRUE(next == at) << where << "from " << time_text(from) << ": " << time_text(next.value_or(from));
        }
        change = at;
      }
    }
  }
  EXPECT_EQ(schedule_of({"00:00-24:00"}).nextChange(read_moment("2026-01-01T00:00:00Z")), std::nullopt);
  EXPECT_EQ(Schedule().nextChange(read_moment("2026-01-01T00:00:00Z")), std::nullopt);
}

}  // namespace
}  // namespace orvane

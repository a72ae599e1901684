#include "companion/list/Schedule.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "companion/text/Input.h"

namespace orvane {
namespace {

using std::chrono::seconds;

constexpr int kDays = 7;
constexpr int kMinutesOfHour = 60;
constexpr int kMinutesOfDay = 24 * kMinutesOfHour;
constexpr int kMinutesOfWeek = kDays * kMinutesOfDay;
constexpr seconds kDay(86400);
constexpr std::string_view kDayNames[kDays] = {"monday", "tuesday",  "wednesday", "thursday",
                                               "friday", "saturday", "sunday"};
constexpr uint8_t kEveryDay = 0x7f;

std::tm local_fields(Moment moment) {
  const std::time_t time = moment.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&time, &fields);
  return fields;
}

seconds utc_offset(Moment moment) { return seconds(local_fields(moment).tm_gmtoff); }

// Minutes since the start of Monday.
int minute_of_week(const std::tm& local) {
  const int day = (local.tm_wday + kDays - 1) % kDays;
  return day * kMinutesOfDay + local.tm_hour * kMinutesOfHour + local.tm_min;
}

// The first moment in (from, to] at which the UTC offset differs from the offset at `from`; `to` if there is none. Two
// changes of the offset are always more than a day apart.
Moment end_of_offset(Moment from, Moment to) {
  const seconds offset = utc_offset(from);
  while (utc_offset(std::min(from + kDay, to)) == offset) {
    from += kDay;
    if (from >= to) return to;
  }
  to = std::min(from + kDay, to);
  while (to - from > seconds(1)) {
    const Moment middle = from + (to - from) / 2;
    (utc_offset(middle) == offset ? from : to) = middle;
  }
  return to;
}

// Removes the name of a day, in full or its first three letters, from the start of the text. Returns the day's number,
// or -1 if there is no such name.
int take_day(std::string_view& text) {
  constexpr size_t kShort = 3;
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  std::string word;
  while (word.size() < text.size() && isLetter(text[word.size()])) word += static_cast<char>(text[word.size()] | 0x20);
  for (int day = 0; day < kDays; ++day) {
    if (word != kDayNames[day] && word != kDayNames[day].substr(0, kShort)) continue;
    text.remove_prefix(word.size());
    return day;
  }
  return -1;
}

bool accept(std::string_view& text, std::string_view expected) {
  const bool isNext = text.starts_with(expected);
  if (isNext) text.remove_prefix(expected.size());
  return isNext;
}

void skip_space(std::string_view& text) { text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size())); }

// "Mon..Fri" or "Sat,Sun" or both, separated by commas. Returns the set of days; 0 if the text is invalid.
uint8_t take_days(std::string_view& text) {
  uint8_t days = 0;
  do {
    const int first = take_day(text);
    const int last = accept(text, "..") ? take_day(text) : first;
    if (first < 0 || last < 0) return 0;
    for (int day = first;; day = (day + 1) % kDays) {
      days = static_cast<uint8_t>(days | 1U << day);
      if (day == last) break;
    }
  } while (accept(text, ","));
  return days;
}

// Removes a number of one or two digits, at most `largest`, from the start of the text. Returns the number, or -1 if
// there is none.
int take_number(std::string_view& text, int largest) {
  int number = 0;
  size_t digits = 0;
  for (; digits < std::min<size_t>(text.size(), 2) && text[digits] >= '0' && text[digits] <= '9'; ++digits)
    number = 10 * number + (text[digits] - '0');
  if (digits == 0 || number > largest) return -1;
  text.remove_prefix(digits);
  return number;
}

// "9:00" or "24:00". Returns the minutes since midnight, or -1.
int take_time(std::string_view& text) {
  const int hour = take_number(text, 24);
  if (hour < 0 || !accept(text, ":")) return -1;
  const int minute = take_number(text, kMinutesOfHour - 1);
  const int time = hour * kMinutesOfHour + minute;
  return minute < 0 || time > kMinutesOfDay ? -1 : time;
}

std::string days_text(uint8_t days) {
  std::string text;
  const auto name = [](int day) {
    std::string result(kDayNames[day].substr(0, 3));
    result[0] = static_cast<char>(result[0] & ~0x20);
    return result;
  };
  for (int day = 0; day < kDays; ++day) {
    if ((days >> day & 1) == 0) continue;
    int last = day;
    while (last + 1 < kDays && (days >> (last + 1) & 1) != 0) ++last;
    text += (text.empty() ? "" : ",") + name(day);
    if (last > day) text += (last == day + 1 ? "," : "..") + name(last);
    day = last;
  }
  return text;
}

std::string time_of_day_text(int minutes) {
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d", minutes / kMinutesOfHour, minutes % kMinutesOfHour);
  return text;
}

}  // namespace

bool Schedule::read(std::string_view text, Span& span) {
  skip_space(text);
  const bool startsWithTime = !text.empty() && text[0] >= '0' && text[0] <= '9';
  span.days = startsWithTime ? kEveryDay : take_days(text);
  if (span.days == 0) return false;
  skip_space(text);
  if (text.empty()) {
    span.begin = 0;
    span.end = kMinutesOfDay;
    return !startsWithTime;
  }
  const int begin = take_time(text);
  skip_space(text);
  if (begin < 0 || begin == kMinutesOfDay || !accept(text, "-")) return false;
  skip_space(text);
  const int end = take_time(text);
  skip_space(text);
  if (end < 0 || end == begin || !text.empty()) return false;
  span.begin = static_cast<uint16_t>(begin);
  span.end = static_cast<uint16_t>(end > begin ? end : end + kMinutesOfDay);
  return true;
}

bool Schedule::add(std::string_view text, std::string& fault) {
  if (spans_.size() >= kMostSpans) {
    fault = "a group has at most 100 spans: remove some";
    return false;
  }
  Span span;
  if (!read(text, span)) {
    fault = "it is no span of time: write it as in \"Mon..Fri 09:00-17:00\" or \"Sat,Sun 22:00-02:00\"";
    return false;
  }
  spans_.push_back(span);
  return true;
}

std::vector<std::string> Schedule::texts() const {
  std::vector<std::string> texts;
  for (const Span& span : spans_) {
    const int end = span.end > kMinutesOfDay ? span.end - kMinutesOfDay : span.end;
    const std::string times = time_of_day_text(span.begin) + "-" + time_of_day_text(end);
    texts.push_back(span.days == kEveryDay ? times : days_text(span.days) + " " + times);
  }
  return texts;
}

bool Schedule::isActive(Moment moment) const {
  const int minute = minute_of_week(local_fields(moment));
  return spans_.empty() || std::any_of(spans_.begin(), spans_.end(), [&](const Span& span) {
           for (int day = 0; day < kDays; ++day) {
             // How long ago the span of this day began. On a Monday, the span of Sunday may still last.
             const int passed = (minute - day * kMinutesOfDay - span.begin + kMinutesOfWeek) % kMinutesOfWeek;
             if ((span.days >> day & 1) != 0 && passed < span.end - span.begin) return true;
           }
           return false;
         });
}

// The minutes of the week at which the schedule is active.
Schedule::Week Schedule::week() const {
  std::vector<int> begun(kMinutesOfWeek);  // how many spans begin at this minute, minus how many end
  int running = 0;
  for (const Span& span : spans_) {
    for (int day = 0; day < kDays; ++day) {
      if ((span.days >> day & 1) == 0) continue;
      const int end = day * kMinutesOfDay + span.end;
      ++begun[day * kMinutesOfDay + span.begin];
      --begun[end % kMinutesOfWeek];
      if (end >= kMinutesOfWeek) ++running;
    }
  }
  Week week;
  for (int minute = 0; minute < kMinutesOfWeek; ++minute) week[minute] = (running += begun[minute]) > 0;
  return week;
}

std::optional<Moment> Schedule::nextChange(Moment now) const {
  if (spans_.empty()) return std::nullopt;
  // Longer than a week, because a span of one day in the week does not occur if it falls into a skipped hour.
  constexpr seconds kLongestWait = 5 * kDays * kDay;
  const Week week = this->week();
  const bool before = week[minute_of_week(local_fields(now))];
  if (week.all() || week.none()) return std::nullopt;
  for (Moment at = now; at < now + kLongestWait;) {
    const std::tm local = local_fields(at);
    const int minute = minute_of_week(local);
    if (week[minute] != before) return at;
    int wait = 1;
    while (week[(minute + wait) % kMinutesOfWeek] == before) ++wait;
    at = end_of_offset(at, at + seconds(60) * wait - seconds(local.tm_sec));
  }
  return std::nullopt;
}

}  // namespace orvane

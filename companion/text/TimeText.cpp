#include "companion/text/TimeText.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <optional>
#include <utility>

#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/Properties.h"
#include "platform/Clock.h"

namespace orvane {
namespace {

using namespace std::chrono;

constexpr Moment kFirst = sys_days(0y / January / 1);
constexpr Moment kEnd = sys_days(9999y / December / 31) + days(1);
constexpr seconds kLongest = duration_cast<seconds>(years(10));

// What a wall clock shows, without a time zone.
using LocalTime = local_seconds;

std::tm local_fields(Moment moment) {
  std::time_t time = moment.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&time, &fields);
  return fields;
}

LocalTime local_time(Moment moment) {
  return LocalTime(moment.time_since_epoch() + seconds(local_fields(moment).tm_gmtoff));
}

// If a change of the clocks skips or repeats `local`, uses the UTC offset from before the change (RFC 5545, section
// 3.3.5).
Moment moment_of(LocalTime local) {
  const Moment near(local.time_since_epoch());
  const Moment before = near - seconds(local_fields(near - days(1)).tm_gmtoff);
  const Moment after = near - seconds(local_fields(near + days(1)).tm_gmtoff);
  return local_time(before) != local && local_time(after) == local ? after : before;
}

// Reads a text part by part from its start. If a part does not match, isValid() is false from then on, and the values
// that the other functions return are meaningless.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) { skipSpace(); }

  // Reads a number of one to `mostDigits` digits.
  int number(size_t mostDigits, int largest = INT_MAX) {
    const std::string_view digits = takeAll("0123456789");
    expect(!digits.empty() && digits.size() <= mostDigits);
    if (!isValid_) return 0;
    int result = 0;
    for (char digit : digits) result = 10 * result + (digit - '0');
    expect(result <= largest);
    return result;
  }
  std::string_view word() { return takeAll("abcdefghijklmnopqrstuvwxyz"); }
  void skipSpace() { takeAll(" \t"); }
  bool accept(std::string_view text) {
    const bool isNext = rest_.substr(0, text.size()) == text;
    if (isNext) rest_.remove_prefix(text.size());
    return isNext;
  }
  void expect(bool matches) { isValid_ = isValid_ && matches; }

  bool isAtEnd() const { return rest_.empty(); }
  bool isValid() const { return isValid_; }

 private:
  std::string_view takeAll(std::string_view characters) {
    const std::string_view taken = rest_.substr(0, rest_.find_first_not_of(characters));
    rest_.remove_prefix(taken.size());
    return taken;
  }

  std::string_view rest_;
  bool isValid_ = true;
};

std::string lower_case(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return lowered;
}

std::optional<seconds> unit_of(std::string_view word) {
  constexpr std::pair<std::string_view, int64_t> kUnits[] = {
      {"s", 1},     {"sec", 1},     {"second", 1},   {"seconds", 1},   {"m", 60},        {"min", 60},
      {"mins", 60}, {"minute", 60}, {"minutes", 60}, {"h", 3600},      {"hour", 3600},   {"hours", 3600},
      {"d", 86400}, {"day", 86400}, {"days", 86400}, {"w", 7 * 86400}, {"week", 604800}, {"weeks", 604800}};
  const auto* found =
      std::find_if(std::begin(kUnits), std::end(kUnits), [&](const auto& unit) { return unit.first == word; });
  if (found == std::end(kUnits)) return std::nullopt;
  return seconds(found->second);
}

// "18:00", "18:00:30", "6pm" or "6:30 pm"
seconds read_clock(Reader& reader) {
  hours hour(reader.number(2, 23));
  seconds rest(0);
  const bool hasMinutes = reader.accept(":");
  if (hasMinutes) {
    rest = minutes(reader.number(2, 59));
    if (reader.accept(":")) rest += seconds(reader.number(2, 59));
  }
  Reader ahead = reader;
  ahead.skipSpace();
  const std::string_view half = ahead.word();
  if (half != "am" && half != "pm") {
    reader.expect(hasMinutes);
    return hour + rest;
  }
  reader = ahead;
  reader.expect(hour >= 1h && hour <= 12h);
  return hour % 12 + (half == "pm" ? 12h : 0h) + rest;
}

// A day that a text names, or several days that it may mean.
struct Day {
  local_days day;
  std::optional<local_days> nextSuch{};   // the day that the text means if the moment on `day` has passed
  std::optional<local_days> other{};      // another day that the text may mean
  std::optional<local_days> sameClock{};  // a day that the text may mean with the current time of day
};

// The position of the first name that begins with the word. Nothing if there is no such name, or if the word has fewer
// than three letters.
template <size_t N>
std::optional<unsigned> position_of(std::string_view word, const std::string_view (&names)[N]) {
  constexpr size_t kShortest = 3;
  for (unsigned i = 0; i < N && word.size() >= kShortest; ++i) {
    if (names[i].starts_with(word)) return i;
  }
  return std::nullopt;
}

std::optional<weekday> weekday_of(std::string_view word) {
  constexpr std::string_view kNames[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
  const auto position = position_of(word, kNames);
  return position ? std::optional(weekday(*position)) : std::nullopt;
}

std::optional<month> month_of(std::string_view word) {
  constexpr std::string_view kNames[] = {"january", "february", "march",     "april",   "may",      "june",
                                         "july",    "august",   "september", "october", "november", "december"};
  const auto position = position_of(word, kNames);
  return position ? std::optional(month(*position + 1)) : std::nullopt;
}

// "2026-12-24"
local_days read_date(Reader& reader) {
  const auto year = std::chrono::year(reader.number(4));
  reader.expect(reader.accept("-"));
  const auto month = std::chrono::month(static_cast<unsigned>(reader.number(2)));
  reader.expect(reader.accept("-"));
  const auto day = std::chrono::day(static_cast<unsigned>(reader.number(2)));
  const year_month_day date = year / month / day;
  reader.expect(date.ok());
  return local_days(date);
}

// The year that may follow a month and a day: " 2026" or ", 2026".
std::optional<year> read_year(Reader& reader) {
  constexpr int kFirstYear = 1000;
  Reader ahead = reader;
  ahead.accept(",");
  ahead.skipSpace();
  const int number = ahead.number(4);
  if (!ahead.isValid() || number < kFirstYear || ahead.accept(":")) return std::nullopt;
  reader = ahead;
  return year(number);
}

Day read_month_day(Reader& reader, month month, unsigned dayNumber, local_days today) {
  const auto given = read_year(reader);
  const auto first = given.value_or(year_month_day(today).year());
  const year_month_day date = first / month / day(dayNumber), next = (first + years(1)) / month / day(dayNumber);
  reader.expect(date.ok());
  if (given || !next.ok()) return {local_days(date)};
  return {local_days(date), local_days(next)};
}

// The day that "next" and the given word mean. The word is a weekday, "week" or "month".
std::optional<Day> next_day(std::string_view word, local_days today) {
  const local_days nextMonday = today + (Monday - weekday(today)) + (weekday(today) == Monday ? days(7) : days(0));
  if (word == "week") return Day{nextMonday, {}, {}, today + days(7)};
  if (word == "month") {
    const year_month_day date(today);
    const auto month = year_month(date.year(), date.month()) + months(1);
    const year_month_day last(local_days(month / std::chrono::last));
    return Day{local_days(month / 1), {}, {}, local_days(month / std::min(date.day(), last.day()))};
  }
  const std::optional<weekday> day = weekday_of(word);
  if (!day) return std::nullopt;
  const days ahead = *day - weekday(today);
  return Day{today + (ahead == days(0) ? days(7) : ahead), {}, nextMonday + (*day - Monday)};
}

// A day that begins with a word: "tomorrow", "mon", "next week", "dec 24", "Thu 2026-12-24".
std::optional<Day> read_day_word(Reader& reader, local_days today) {
  std::string_view word = reader.word();
  if (word == "today") return Day{today};
  if (word == "yesterday") return Day{today - days(1)};
  if (word == "tomorrow") return Day{today + days(1), {}, {}, today + days(1)};
  if (word == "next" || word == "this") {
    reader.skipSpace();
    const std::string_view following = reader.word();
    if (word == "next") return next_day(following, today);
    word = following;
  }
  if (const auto month = month_of(word)) {
    reader.skipSpace();
    const int day = reader.number(2);
    return read_month_day(reader, *month, static_cast<unsigned>(day), today);
  }
  const std::optional<weekday> day = weekday_of(word);
  if (!day) return std::nullopt;
  Reader ahead = reader;
  ahead.accept(",");
  ahead.skipSpace();
  if (const local_days date = read_date(ahead); ahead.isValid()) {
    reader = ahead;
    reader.expect(weekday(date) == *day);
    return Day{date};
  }
  const local_days first = today + (*day - weekday(today));
  return Day{first, first + days(7)};
}

// A day that begins with a number: "2026-12-24" or "24 dec".
std::optional<Day> read_day_number(Reader& reader, local_days today) {
  Reader ahead = reader;
  if (const local_days date = read_date(ahead); ahead.isValid()) {
    ahead.accept("t");
    reader = ahead;
    return Day{date};
  }
  const int day = reader.number(2);
  reader.skipSpace();
  const std::optional<month> month = month_of(reader.word());
  if (!month || !reader.isValid()) return std::nullopt;
  return read_month_day(reader, *month, static_cast<unsigned>(day), today);
}

// A day and a time of day, as a text gives them.
struct DayAndClock {
  std::optional<Day> day;
  std::optional<seconds> clock;
  bool isMidnight = false;
};

// Reads a day, or if the text does not continue with a day, a time of day.
void read_item(Reader& reader, DayAndClock& items, local_days today) {
  for (auto* read : {read_day_word, read_day_number}) {
    Reader ahead = reader;
    auto day = read(ahead, today);
    if (!day || !ahead.isValid()) continue;
    ahead.expect(!items.day);
    items.day = day;
    reader = ahead;
    return;
  }
  reader.expect(!items.clock);
  items.isMidnight = reader.accept("midnight");
  items.clock = items.isMidnight ? 0h : reader.accept("noon") ? 12h : read_clock(reader);
}

std::optional<DayAndClock> read_day_and_clock(std::string_view text, local_days today) {
  Reader reader(text);
  DayAndClock items;
  do {
    for (std::string_view filler : {"at ", "on "}) reader.accept(filler);
    reader.skipSpace();
    read_item(reader, items, today);
    reader.accept(",");
    reader.skipSpace();
  } while (reader.isValid() && !reader.isAtEnd());
  return reader.isValid() ? std::optional(items) : std::nullopt;
}

// The moments that a day and a time of day may mean, in no order.
std::vector<Moment> moments_of(const DayAndClock& items, LocalTime now) {
  const auto today = floor<days>(now);
  const seconds clock = items.clock.value_or(seconds(0));
  if (!items.day) return {moment_of(today + clock), moment_of(today + days(1) + clock)};
  std::vector<Moment> moments;
  for (const auto& day : {std::optional(items.day->day), items.day->other}) {
    if (!day) continue;
    moments.push_back(moment_of(*day + clock));
    if (items.isMidnight) moments.push_back(moment_of(*day + days(1)));
  }
  if (const auto& day = items.day->sameClock) moments.push_back(moment_of(*day + items.clock.value_or(now - today)));
  return moments;
}

// Removes the moments that have passed, and sorts the others. Of moments at most an hour apart, the first stays.
std::vector<Moment> distinct(std::vector<Moment> moments, Moment now) {
  std::erase_if(moments, [now](Moment moment) { return moment <= now; });
  std::sort(moments.begin(), moments.end());
  const auto isNear = [](Moment earlier, Moment later) { return later - earlier <= 1h; };
  moments.erase(std::unique(moments.begin(), moments.end(), isNear), moments.end());
  return moments;
}

// Nothing if the text names no day and no time of day.
std::optional<std::vector<Moment>> read_local(std::string_view text, Moment now) {
  const LocalTime local = local_time(now);
  std::optional<DayAndClock> items = read_day_and_clock(text, floor<days>(local));
  if (!items) return std::nullopt;
  std::vector<Moment> moments = distinct(moments_of(*items, local), now);
  if (!items->day && moments.size() > 1) moments.resize(1);
  if (moments.empty() && items->day && items->day->nextSuch) {
    items->day->day = *items->day->nextSuch;
    moments = distinct(moments_of(*items, local), now);
  }
  return moments;
}

// The moment that is the given duration after `now`, or nothing if the text is not a duration. If the text says that it
// is one, by "in" or "+", throws for a bad duration.
std::optional<Moment> read_from_now(std::string_view text, Moment now) {
  for (std::string_view prefix : {"in ", "+"}) {
    if (text.starts_with(prefix)) return now + read_duration(text.substr(prefix.size()));
  }
  try {
    return now + read_duration(text);
  } catch (const InputError&) {
    return std::nullopt;
  }
}

std::vector<Moment> read_readings(std::string_view text, Moment now) {
  try {
    return distinct({read_moment(text)}, now);
  } catch (const InputError&) {  // not RFC 3339
  }
  const std::string lowered = lower_case(trimmed(text));
  if (const auto moment = read_from_now(lowered, now)) return {*moment};
  if (auto moments = read_local(lowered, now)) return *std::move(moments);
  throw InputError("not a time: " + in_quotes(text) +
                   ": write it as in 18:00, 6pm, tomorrow 9:00, friday 17:00, 2026-12-24 18:00 or 2h");
}

// The last moment up to `now` that a day and a time of day may mean; if there is none, a later one.
Moment last_moment_of(const DayAndClock& items, Moment now) {
  const local_days today = floor<days>(local_time(now));
  const seconds clock = items.clock.value_or(seconds(0));
  const local_days day = items.day ? items.day->day : today;
  const Moment moment = moment_of(day + clock);
  if (moment <= now || (items.day && !items.day->nextSuch)) return moment;
  if (!items.day) return moment_of(day - days(1) + clock);
  // The text names a weekday, or a day of the year.
  if (*items.day->nextSuch - day == days(7)) return moment_of(day - days(7) + clock);
  const year_month_day lastYear = year_month_day(day) - years(1);
  return lastYear.ok() ? moment_of(local_days(lastYear) + clock) : moment;
}

std::string two_units(int64_t large, const char* largeUnit, int64_t small, const char* smallUnit) {
  std::string text = std::to_string(large) + " " + largeUnit;
  return small == 0 ? text : text + " " + std::to_string(small) + " " + smallUnit;
}

int64_t rounded_up(seconds duration, int64_t unit) { return (duration.count() + unit - 1) / unit; }

}  // namespace

Moment now_in_seconds() { return floor<seconds>(system_clock::now()); }

std::string time_text(Moment moment) {
  const year_month_day date(floor<days>(moment));
  const hh_mm_ss clock(moment - floor<days>(moment));
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text;
}

Moment read_moment(std::string_view text) {
  const double absolute = std::ceil(parse_time(text).asDate());
  const Moment moment = kAbsoluteTimeReference + seconds(static_cast<int64_t>(absolute));
  if (moment < kFirst || moment >= kEnd)
    throw InputError("not a time: " + in_quotes(text) + ": give one in the years 0 to 9999");
  return moment;
}

seconds read_duration(std::string_view text) {
  constexpr size_t kMostDigits = 9;
  const std::string lowered = lower_case(text);
  Reader reader(lowered);
  seconds total(0);
  do {
    const bool isOne = reader.accept("an ") || reader.accept("a ");
    const int64_t count = isOne ? 1 : reader.number(kMostDigits);
    reader.skipSpace();
    const std::optional<seconds> unit = unit_of(reader.word());
    if (!reader.isValid() || !unit)
      throw InputError("not a duration: " + in_quotes(text) + ": write it as in 30m, 1h30m or 2d");
    total += count * *unit;
    if (total > kLongest) throw InputError("too long: " + in_quotes(text) + ": give at most ten years");
    reader.skipSpace();
  } while (!reader.isAtEnd());
  if (total == seconds(0)) throw InputError("too short: " + in_quotes(text) + ": give at least one second");
  return total;
}

std::vector<Moment> read_until(std::string_view text, Moment now) {
  std::vector<Moment> moments = read_readings(text, now);
  if (moments.empty()) throw InputError("the time has passed: " + in_quotes(text) + ": give a future time");
  if (moments.back() > now + kLongest)
    throw InputError("too far away: " + in_quotes(text) + ": give at most ten years");
  return moments;
}

Moment read_past(std::string_view text, Moment now) {
  constexpr std::string_view kAgo = " ago";
  const std::string lowered = lower_case(trimmed(text));
  const bool isDuration = lowered.ends_with(kAgo);
  std::optional<Moment> moment;
  try {
    moment = read_moment(text);
  } catch (const InputError&) {  // not RFC 3339
    try {
      moment = now - read_duration(lowered.substr(0, lowered.size() - (isDuration ? kAgo.size() : 0)));
    } catch (const InputError&) {
      if (isDuration) throw;
      const auto items = read_day_and_clock(lowered, floor<days>(local_time(now)));
      if (items) moment = last_moment_of(*items, now);
    }
  }
  if (!moment)
    throw InputError("not a time: " + in_quotes(text) +
                     ": write it as in today, yesterday, monday 9:00, 18:00, 2026-11-20, 2h or 3 days ago");
  if (*moment > now) throw InputError("the time is in the future: " + in_quotes(text) + ": give a past time");
  return *moment;
}

std::string local_text(Moment moment, Moment now) {
  const std::tm fields = local_fields(moment);
  const days ahead = floor<days>(local_time(moment)) - floor<days>(local_time(now));
  const bool near = ahead == days(0) || ahead == days(1);
  char text[64];
  std::strftime(text, sizeof text, near ? "%H:%M" : "%a %Y-%m-%d %H:%M", &fields);
  std::string result = (ahead == days(1) ? "tomorrow " : "") + std::string(text);
  if (fields.tm_sec == 0) return result;
  std::strftime(text, sizeof text, ":%S", &fields);
  return result + text;
}

std::string duration_text(seconds duration) {
  constexpr int64_t kMinute = 60, kHour = 3600, kDay = 86400, kHours = 24;
  duration = std::max(duration, seconds(0));
  if (duration.count() < kMinute) return std::to_string(duration.count()) + " s";
  if (const int64_t left = rounded_up(duration, kMinute); left < kMinute) return std::to_string(left) + " min";
  if (const int64_t left = rounded_up(duration, kMinute); left < kDay / kMinute)
    return two_units(left / kMinute, "h", left % kMinute, "min");
  const int64_t left = rounded_up(duration, kHour);
  return two_units(left / kHours, left / kHours == 1 ? "day" : "days", left % kHours, "h");
}

std::string suspension_text(Moment until, Moment now) {
  return "until " + local_text(until, now) + " (" + duration_text(until - now) + " left)";
}

}  // namespace orvane

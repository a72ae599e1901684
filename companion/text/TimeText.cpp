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
#include "companion/text/LocalTime.h"
#include "companion/text/Properties.h"
#include "platform/Clock.h"

namespace orvane {
namespace {

using namespace std::chrono;

constexpr Moment kFirst = sys_days(0y / January / 1);
constexpr Moment kEnd = sys_days(9999y / December / 31) + days(1);
constexpr seconds kLongest = days(3653);  // ten years, of which three are leap years
constexpr months kMostMonths = years(10);

// A duration. Months come first, because their length depends on the date.
struct CalendarSpan {
  months whole{0};
  seconds rest{0};
};

Moment add(Moment moment, months whole, seconds rest) {
  if (whole == months(0)) return moment + rest;
  const LocalTime local = Zone().local(moment);
  const auto day = floor<days>(local);
  return Zone().moment(months_later(day, whole) + (local - day)) + rest;
}

// The last moment at which a time span may end.
Moment last_end(Moment now) { return add(now, kMostMonths, seconds(0)); }

// Reads a text part by part from its start. If a part does not match, isValid() is false from then on, and the values
// that the other functions return are meaningless.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) { skipSpace(); }

  // Reads a number of one to `mostDigits` digits, at most 18.
  int64_t longNumber(size_t mostDigits) {
    const std::string_view digits = takeAll("0123456789");
    expect(!digits.empty() && digits.size() <= mostDigits);
    if (!isValid_) return 0;
    int64_t result = 0;
    for (char digit : digits) result = 10 * result + (digit - '0');
    return result;
  }
  int number(size_t mostDigits, int largest = INT_MAX) {
    const int64_t result = longNumber(mostDigits);
    expect(result <= largest);
    return isValid_ ? static_cast<int>(result) : 0;
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

std::optional<months> long_unit_of(std::string_view word) {
  if (word == "month" || word == "months") return months(1);
  if (word == "year" || word == "years") return months(12);
  return std::nullopt;
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

InputError too_long(std::string_view text) {
  return InputError("too long: " + in_quotes(text) + ": give at most ten years");
}

// Limits the months and the rest to ten years each, but not their sum.
CalendarSpan read_span(std::string_view text) {
  constexpr size_t kMostDigits = 9;
  const std::string lowered = lower_case(text);
  Reader reader(lowered);
  CalendarSpan span;
  do {
    const bool isOne = reader.accept("an ") || reader.accept("a ");
    const int64_t count = isOne ? 1 : reader.number(kMostDigits);
    reader.skipSpace();
    const std::string_view word = reader.word();
    const std::optional<seconds> unit = unit_of(word);
    const std::optional<months> longUnit = long_unit_of(word);
    if (!reader.isValid() || !(unit || longUnit))
      throw InputError("not a duration: " + in_quotes(text) + ": write it as in 30m, 1h30m or 2d");
    const int64_t whole = span.whole.count() + (longUnit ? count * longUnit->count() : 0);
    if (unit) span.rest += count * *unit;
    if (span.rest > kLongest || whole > kMostMonths.count()) throw too_long(text);
    span.whole = months(static_cast<int>(whole));
    reader.skipSpace();
  } while (!reader.isAtEnd());
  if (span.whole == months(0) && span.rest == seconds(0))
    throw InputError("too short: " + in_quotes(text) + ": give at least one second");
  return span;
}

// "18:00", "18:00:30", "24:00" (the end of the day), "6pm", "6:30 pm" or "6 p.m."
seconds read_clock(Reader& reader) {
  hours hour(reader.number(2, 24));
  seconds rest(0);
  const bool hasMinutes = reader.accept(":");
  if (hasMinutes) {
    rest = minutes(reader.number(2, 59));
    if (reader.accept(":")) rest += seconds(reader.number(2, 59));
  }
  Reader ahead = reader;
  ahead.skipSpace();
  const std::string_view half = ahead.word();
  const bool isDotted = (half == "a" || half == "p") && (ahead.accept(".m.") || ahead.accept(".m"));
  if (!isDotted && half != "am" && half != "pm") {
    reader.expect(hasMinutes && hour + rest <= 24h);
    return hour + rest;
  }
  reader = ahead;
  reader.expect(hour >= 1h && hour <= 12h);
  return hour % 12 + (half.front() == 'p' ? 12h : 0h) + rest;
}

// What may follow a time of day: "Z", "UTC", "gmt+1" or "+05:30".
Zone read_zone(Reader& reader) {
  Reader ahead = reader;
  ahead.skipSpace();
  const std::string_view name = ahead.word();
  const bool isNamed = name == "z" || name == "utc" || name == "gmt";
  const int sign = ahead.accept("+") ? 1 : ahead.accept("-") ? -1 : 0;
  if (!(isNamed || (name.empty() && sign != 0))) return {};
  seconds offset(0);
  if (sign != 0) {
    constexpr int kMostHours = 14;
    offset = hours(ahead.number(2, kMostHours));
    const bool hasMinutes = ahead.accept(":");
    if (hasMinutes) offset += minutes(ahead.number(2, 59));
    ahead.expect(isNamed || hasMinutes);
  }
  reader = ahead;
  return {sign < 0 ? -offset : offset};
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

// "2026-12-24" or "20261224"
local_days read_date(Reader& reader) {
  Reader ahead = reader;
  if (const int digits = ahead.number(8); ahead.isValid() && digits >= 10'000'000) {
    const year_month_day date = year(digits / 10'000) / (digits / 100 % 100) / (digits % 100);
    reader = ahead;
    reader.expect(date.ok());
    return local_days(date);
  }
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

// The date; or, if its year has no 29 February, the date in the nearest year that has one. `step`: 1 or -1 year. The
// result is not ok() if no year has the date.
year_month_day nearest_date(year_month_day date, years step) {
  constexpr int kMostYears = 8;  // from 2096 to 2104
  for (int i = 0; i < kMostYears && !date.ok(); ++i) date += step;
  return date;
}

Day read_month_day(Reader& reader, month month, unsigned dayNumber, local_days today) {
  if (const auto given = read_year(reader)) {
    const year_month_day date = *given / month / day(dayNumber);
    reader.expect(date.ok());
    return {local_days(date)};
  }
  const year_month_day date = nearest_date(year_month_day(today).year() / month / day(dayNumber), years(1));
  reader.expect(date.ok());
  return {local_days(date), local_days(nearest_date(date + years(1), years(1)))};
}

// The day that "next" and the given word mean. The word is a weekday, "week", "month" or "year".
std::optional<Day> next_day(std::string_view word, local_days today) {
  const local_days nextMonday = today + (Monday - weekday(today)) + (weekday(today) == Monday ? days(7) : days(0));
  if (word == "week") return Day{nextMonday, {}, {}, today + days(7)};
  if (const auto count = long_unit_of(word)) {
    const local_days later = months_later(today, *count);
    const year_month_day date(later);
    const month first = word == "year" ? January : date.month();
    return Day{local_days(date.year() / first / 1), {}, {}, later};
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
    if (word == "next") {
      const std::optional<Day> next = next_day(following, today);
      Reader ahead = reader;
      ahead.skipSpace();
      const std::optional<weekday> day = following == "week" ? weekday_of(ahead.word()) : std::nullopt;
      if (!day) return next;
      reader = ahead;
      return Day{next->day + (*day - Monday)};
    }
    word = following;
  }
  if (const auto month = month_of(word)) {
    reader.skipSpace();
    const int day = reader.number(2);
    return read_month_day(reader, *month, static_cast<unsigned>(day), today);
  }
  const std::optional<weekday> day = weekday_of(word);
  if (!day) return std::nullopt;
  reader.skipSpace();
  if (reader.accept("next week")) return Day{next_day("week", today)->day + (*day - Monday)};
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
  Zone zone{};
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
  items.zone = read_zone(reader);
}

std::optional<DayAndClock> read_on(std::string_view text, local_days today) {
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

// Nothing if the text names no day and no time of day.
std::optional<DayAndClock> read_day_and_clock(std::string_view text, Moment now) {
  auto items = read_on(text, floor<days>(Zone().local(now)));
  // If the text gives a zone, its day is a day of this zone.
  return items && items->zone.offset ? read_on(text, floor<days>(items->zone.local(now))) : items;
}

// The moments that a day and a time of day may mean, in no order. They include moments that have passed.
std::vector<Moment> moments_of(const DayAndClock& items, Moment now) {
  const LocalTime local = items.zone.local(now);
  const auto today = floor<days>(local);
  const seconds clock = items.clock.value_or(seconds(0));
  const Day day = items.day.value_or(Day{today, today + days(1)});
  std::vector<Moment> moments;
  const auto addDay = [&](local_days start) {
    moments.push_back(items.zone.moment(start + clock));
    if (items.isMidnight) moments.push_back(items.zone.moment(start + days(1)));
  };
  addDay(day.day);
  if (day.other) addDay(*day.other);
  if (day.sameClock) moments.push_back(items.zone.moment(*day.sameClock + items.clock.value_or(local - today)));
  const bool havePassed = std::all_of(moments.begin(), moments.end(), [now](Moment moment) { return moment <= now; });
  if (havePassed && day.nextSuch) addDay(*day.nextSuch);
  if (havePassed && !day.nextSuch && !items.clock && day.day == today) addDay(today + days(1));  // the end of today
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

std::optional<CalendarSpan> read_span_if_any(std::string_view text) {
  try {
    return read_span(text);
  } catch (const InputError&) {
    return std::nullopt;
  }
}

// "@" and the seconds since 1970.
std::optional<Moment> read_unix_time(std::string_view text) {
  constexpr size_t kMostDigits = 10;  // up to the year 2286; more digits are probably milliseconds
  Reader reader(text);
  reader.expect(reader.accept("@"));
  const Moment moment(seconds(reader.longNumber(kMostDigits)));
  reader.skipSpace();
  return reader.isValid() && reader.isAtEnd() ? std::optional(moment) : std::nullopt;
}

// How to write a time instead of the text.
std::string advice_for(std::string_view text) {
  constexpr size_t kUnixDigits = 10;  // from 2001 to 2286
  const std::string unixTime = "@" + std::string(text);
  if (text.size() == kUnixDigits && read_unix_time(unixTime)) return "for a Unix time, write " + unixTime;
  Reader reader(text);
  const int hour = reader.number(2, 23);
  if (!reader.isValid() || !reader.isAtEnd())
    return "write it as in 18:00, 6pm, tomorrow 9:00, friday 17:00, 2026-12-24 18:00 or 2h";
  const std::string half = std::to_string(hour % 12 == 0 ? 12 : hour % 12) + (hour < 12 ? "am" : "pm");
  return "write " + std::to_string(hour) + ":00 or " + half;
}

// The moments that a text may mean, in no order. They include moments that have passed, because a duration may follow.
std::vector<Moment> read_readings(std::string_view text, Moment now) {
  try {
    return {read_moment(text)};
  } catch (const InputError&) {  // not RFC 3339
  }
  const std::string lowered = lower_case(trimmed(text));
  if (const auto moment = read_unix_time(lowered)) return {*moment};
  constexpr std::string_view kIn = "in ";
  if (lowered.starts_with(kIn)) return {read_end(lowered.substr(kIn.size()), now)};
  if (const auto span = read_span_if_any(lowered)) return {add(now, span->whole, span->rest)};
  if (const auto items = read_day_and_clock(lowered, now)) return moments_of(*items, now);
  // A moment, or none for `now`, and a duration: "friday 17:00 + 1 week". A "+" may also begin the offset of a zone.
  if (const size_t plus = lowered.rfind('+'); plus != std::string::npos) {
    const std::string_view base = trimmed(std::string_view(lowered).substr(0, plus));
    const std::string_view added = std::string_view(lowered).substr(plus + 1);
    if (base.empty() || base == "now") return {read_end(added, now)};
    if (const auto span = read_span_if_any(added)) {
      std::vector<Moment> moments = read_readings(base, now);
      for (Moment& moment : moments) moment = add(moment, span->whole, span->rest);
      return moments;
    }
  }
  throw InputError("not a time: " + in_quotes(text) + ": " + advice_for(lowered));
}

// The last moment up to `now` that a day and a time of day may mean; if there is none, a later one.
Moment last_moment_of(const DayAndClock& items, Moment now) {
  const local_days today = floor<days>(items.zone.local(now));
  const seconds clock = items.clock.value_or(seconds(0));
  const local_days day = items.day ? items.day->day : today;
  const Moment moment = items.zone.moment(day + clock);
  if (moment <= now || (items.day && !items.day->nextSuch)) return moment;
  if (!items.day) return items.zone.moment(day - days(1) + clock);
  // The text names a weekday, or a day of the year.
  if (*items.day->nextSuch - day == days(7)) return items.zone.moment(day - days(7) + clock);
  const year_month_day last = nearest_date(year_month_day(day) - years(1), years(-1));
  return items.zone.moment(local_days(last) + clock);
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
  const CalendarSpan span = read_span(text);
  if (span.whole != months(0))
    throw InputError("months and years differ in length: " + in_quotes(text) + ": write it in days or weeks");
  return span.rest;
}

Moment read_end(std::string_view duration, Moment now) {
  const CalendarSpan span = read_span(duration);
  const Moment end = add(now, span.whole, span.rest);
  if (end > last_end(now)) throw too_long(duration);
  return end;
}

std::vector<Moment> read_until(std::string_view text, Moment now) {
  std::vector<Moment> moments = distinct(read_readings(text, now), now);
  if (moments.empty()) throw InputError("the time has passed: " + in_quotes(text) + ": give a future time");
  if (moments.back() > last_end(now)) throw InputError("too far away: " + in_quotes(text) + ": give at most ten years");
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
      const CalendarSpan span = read_span(lowered.substr(0, lowered.size() - (isDuration ? kAgo.size() : 0)));
      moment = add(now, -span.whole, -span.rest);
    } catch (const InputError&) {
      if (isDuration) throw;
      const auto items = read_day_and_clock(lowered, now);
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
  const days ahead = floor<days>(Zone().local(moment)) - floor<days>(Zone().local(now));
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

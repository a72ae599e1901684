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

// "18:00" or "18:00:30"
seconds read_clock(Reader& reader) {
  const hours hour(reader.number(2, 23));
  reader.expect(reader.accept(":"));
  const minutes minute(reader.number(2, 59));
  return hour + minute + seconds(reader.accept(":") ? reader.number(2, 59) : 0);
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

// The day that the text starts with: "today", "tomorrow" or a date. If it starts with none of them, returns nothing and
// reads nothing.
std::optional<local_days> read_day(Reader& reader, local_days today) {
  if (reader.accept("today")) return today;
  if (reader.accept("tomorrow")) return today + days(1);
  Reader ahead = reader;
  const local_days day = read_date(ahead);
  if (!ahead.isValid()) return std::nullopt;
  reader = ahead;
  return day;
}

std::optional<Moment> read_local(std::string_view text, Moment now) {
  Reader reader(text);
  const auto today = floor<days>(local_time(now));
  const std::optional<local_days> day = read_day(reader, today);
  if (day && !reader.accept("T")) reader.skipSpace();
  const seconds clock = day && reader.isAtEnd() ? seconds(0) : read_clock(reader);
  reader.skipSpace();
  if (!reader.isValid() || !reader.isAtEnd()) return std::nullopt;
  const Moment moment = moment_of(day.value_or(today) + clock);
  return day || moment > now ? moment : moment_of(today + days(1) + clock);
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
  Reader reader(text);
  seconds total(0);
  do {
    const int64_t count = reader.number(kMostDigits);
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

Moment read_until(std::string_view text, Moment now) {
  std::optional<Moment> moment;
  try {
    moment = read_moment(text);
  } catch (const InputError&) {
    moment = read_local(text, now);
  }
  if (!moment)
    throw InputError("not a time: " + in_quotes(text) +
                     ": write it as in 18:00, \"tomorrow 9:00\" or \"2026-12-24 18:00\"");
  if (*moment <= now) throw InputError("the time has passed: " + in_quotes(text) + ": give one to come");
  if (*moment > now + kLongest) throw InputError("too far away: " + in_quotes(text) + ": give at most ten years");
  return *moment;
}

std::string local_text(Moment moment, Moment now) {
  const std::tm fields = local_fields(moment);
  const days ahead = floor<days>(local_time(moment)) - floor<days>(local_time(now));
  const bool near = ahead == days(0) || ahead == days(1);
  char text[64];
  std::strftime(text, sizeof text, near ? "%H:%M" : "%Y-%m-%d %H:%M", &fields);
  std::string result = (ahead == days(1) ? "tomorrow " : "") + std::string(text);
  if (fields.tm_sec == 0) return result;
  std::strftime(text, sizeof text, ":%S", &fields);
  return result + text;
}

std::string duration_text(seconds duration) {
  constexpr int64_t kMinute = 60, kHour = 3600, kDay = 86400, kHours = 24;
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

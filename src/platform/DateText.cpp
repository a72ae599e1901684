#include "platform/DateText.h"

#include <chrono>

#include "platform/Clock.h"

namespace orvane {
namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether the text has the given form, in which 0 stands for any digit.
bool has_form(std::string_view text, std::string_view form) {
  if (text.size() != form.size()) return false;
  for (size_t i = 0; i < form.size(); ++i) {
    if (form[i] == '0' ? !is_digit(text[i]) : text[i] != form[i]) return false;
  }
  return true;
}

int number_at(std::string_view text, size_t at, size_t digits) {
  int number = 0;
  for (char c : text.substr(at, digits)) number = 10 * number + (c - '0');
  return number;
}

}  // namespace

std::optional<double> absolute_time_of_text(std::string_view text) {
  using namespace std::chrono;
  constexpr size_t kDateLength = 10, kLength = 19;
  if (text.size() <= kLength || !has_form(text.substr(0, kDateLength), "0000-00-00") ||
      std::string_view("Tt ").find(text[kDateLength]) == std::string_view::npos ||
      !has_form(text.substr(kDateLength + 1, 8), "00:00:00")) {
    return std::nullopt;
  }
  const year_month_day date{year(number_at(text, 0, 4)), month(static_cast<unsigned>(number_at(text, 5, 2))),
                            day(static_cast<unsigned>(number_at(text, 8, 2)))};
  const int hour = number_at(text, 11, 2), minute = number_at(text, 14, 2), second = number_at(text, 17, 2);
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;

  std::string_view rest = text.substr(kLength);
  double fraction = 0;
  if (rest.front() == '.') {
    double weight = 1;
    for (rest.remove_prefix(1); !rest.empty() && is_digit(rest.front()); rest.remove_prefix(1)) {
      fraction += (weight /= 10) * (rest.front() - '0');
    }
    if (weight == 1) return std::nullopt;  // no digits after the dot
  }

  minutes offset(0);  // the text's offset from UTC, positive east of Greenwich
  if (rest != "Z" && rest != "z") {
    if (!has_form(rest, "+00:00") && !has_form(rest, "-00:00")) return std::nullopt;
    const int offsetHours = number_at(rest, 1, 2), offsetMinutes = number_at(rest, 4, 2);
    if (offsetHours > 23 || offsetMinutes > 59) return std::nullopt;
    offset = hours(offsetHours) + minutes(offsetMinutes);
    if (rest.front() == '-') offset = -offset;
  }
  const seconds whole =
      sys_days(date) - kAbsoluteTimeReference + hours(hour) + minutes(minute) + seconds(second) - offset;
  return static_cast<double>(whole.count()) + fraction;
}

}  // namespace orvane

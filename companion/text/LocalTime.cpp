#include "companion/text/LocalTime.h"

#include <algorithm>

namespace orvane {

using namespace std::chrono;

std::tm local_fields(Moment moment) {
  std::time_t time = moment.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&time, &fields);
  return fields;
}

LocalTime Zone::local(Moment moment) const {
  return LocalTime(moment.time_since_epoch() + offset.value_or(seconds(local_fields(moment).tm_gmtoff)));
}

Moment Zone::moment(LocalTime local) const {
  const Moment near(local.time_since_epoch());
  if (offset) return near - *offset;
  const Moment before = near - seconds(local_fields(near - days(1)).tm_gmtoff);
  const Moment after = near - seconds(local_fields(near + days(1)).tm_gmtoff);
  return this->local(before) != local && this->local(after) == local ? after : before;
}

local_days months_later(local_days day, months count) {
  const year_month_day date(day);
  const auto month = date.year() / date.month() + count;
  const year_month_day last(local_days(month / std::chrono::last));
  return local_days(month / std::min(date.day(), last.day()));
}

}  // namespace orvane

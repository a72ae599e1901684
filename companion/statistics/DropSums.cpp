#include "companion/statistics/DropSums.h"

#include <algorithm>
#include <chrono>
#include <ctime>

namespace orvane {
namespace {

using namespace std::chrono_literals;

std::tm local_fields(Moment moment) {
  const std::time_t time = moment.time_since_epoch().count();
  std::tm fields{};
  localtime_r(&time, &fields);
  return fields;
}

Moment start_of_hour(Moment moment) {
  const std::tm fields = local_fields(moment);
  return moment - std::chrono::minutes(fields.tm_min) - std::chrono::seconds(fields.tm_sec);
}

// The start of the day that is `later` days after the day of `moment`.
Moment start_of_day(Moment moment, int later = 0) {
  std::tm fields = local_fields(moment);
  fields.tm_mday += later;
  fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
  fields.tm_isdst = -1;
  return Moment(std::chrono::seconds(std::mktime(&fields)));
}

}  // namespace

void DropSums::count(Sums& sums, const std::string& name, const DropEntry& entry) {
  Sum& sum = sums[name];
  sum.name = name;
  sum.count += entry.count;
  sum.last = std::max(sum.last, entry.when);
}

void DropSums::add(const DropEntry& entry) {
  (entry.host.empty() ? leftOut_ : count_) += entry.count;
  if (entry.host.empty()) return;
  count(hosts_, entry.host, entry);
  count(browsers_, entry.browser, entry);
  hours_[start_of_hour(entry.when)] += entry.count;
}

std::vector<DropSums::Sum> DropSums::sorted(const Sums& sums) {
  std::vector<Sum> list;
  for (const auto& [name, sum] : sums) list.push_back(sum);
  std::stable_sort(list.begin(), list.end(), [](const Sum& a, const Sum& b) { return a.count > b.count; });
  return list;
}

bool DropSums::barsAreDays(Moment until) const { return !hours_.empty() && until - hours_.begin()->first > 48h; }

std::vector<DropSums::Bar> DropSums::bars(Moment until) const {
  std::vector<Bar> bars;
  if (hours_.empty()) return bars;
  const bool days = barsAreDays(until);
  const Moment first = hours_.begin()->first, last = std::max(until - 1s, hours_.rbegin()->first);
  for (Moment start = days ? start_of_day(first) : first; start <= last;) {
    const Moment next = days ? start_of_day(start, 1) : start_of_hour(start + 1h);
    Bar& bar = bars.emplace_back(Bar{start});
    for (auto hour = hours_.lower_bound(start); hour != hours_.end() && hour->first < next; ++hour)
      bar.count += hour->second;
    start = next;
  }
  return bars;
}

}  // namespace orvane

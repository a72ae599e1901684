#include "companion/subscriptions/FetchPlan.h"

#include <algorithm>

namespace orvane {
namespace {

using std::chrono::seconds;

constexpr seconds kFirstPause = std::chrono::minutes(5);
constexpr seconds kFirstPauseWithoutCopy(10);
constexpr seconds kLongestRetryAfter = std::chrono::hours(24);

seconds tenth(seconds time, double random) {
  constexpr double kShare = 0.1;
  return seconds(static_cast<seconds::rep>(static_cast<double>(time.count()) * kShare * random));
}

}  // namespace

Moment after_success(Moment now, seconds every, double random) { return now + every - tenth(every, random); }

Moment after_failure(Moment now, seconds every, bool hasCopy, uint64_t failures, seconds retryAfter, double random) {
  constexpr uint64_t kMostDoublings = 30;
  const uint64_t doublings = std::min(std::max<uint64_t>(failures, 1) - 1, kMostDoublings);
  const seconds first = hasCopy ? kFirstPause : kFirstPauseWithoutCopy;
  seconds pause = std::min(first * (int64_t{1} << doublings), every);
  pause = std::max(pause, std::min(retryAfter, std::max(every, kLongestRetryAfter)));
  return now + pause + tenth(pause, random);
}

Moment after_start(std::optional<Moment> next, Moment now, seconds every, bool hasCopy, double random) {
  if (!next || (!hasCopy && *next <= now)) return now;
  const seconds spread = std::min(kFirstPause, every / 10);
  return *next > now ? *next : now + tenth(spread * 10, random);
}

bool is_due(Moment next, Moment now, seconds every) {
  const seconds longest = std::max(every, kLongestRetryAfter);
  return next <= now || next > now + longest + longest / 10;
}

}  // namespace orvane

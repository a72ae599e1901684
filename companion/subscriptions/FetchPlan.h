#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "companion/text/TimeText.h"

namespace orvane {

// When a subscription is fetched next. `random` is in [0, 1): because of it, machines that start at the same time do
// not all ask a server at the same time.

// After a fetch that succeeded: in the last tenth of `every`, so the copy is never older than `every`.
Moment after_success(Moment now, std::chrono::seconds every, double random);

// After a fetch that failed, for the `failures`-th time in a row: after 5 min, and then after twice the time before,
// but at most `every`. A server may ask for a longer time (`retryAfter`), but at most for a day or `every`. Up to a
// tenth of the time is added.
Moment after_failure(Moment now, std::chrono::seconds every, uint64_t failures, std::chrono::seconds retryAfter,
                     double random);

// At the start of the service: `next` as it was planned before; if this moment has passed, a moment within 5 min or a
// tenth of `every`. A subscription that was never fetched (`next` is empty) is due at once.
Moment after_start(std::optional<Moment> next, Moment now, std::chrono::seconds every, double random);

// Whether a fetch planned for `next` is due. It is also due if `next` is further ahead than a plan can be, because then
// the clock has been set back.
bool is_due(Moment next, Moment now, std::chrono::seconds every);

}  // namespace orvane

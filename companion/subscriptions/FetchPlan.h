#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "companion/text/TimeText.h"

namespace orvane {

// When a subscription is fetched next. `random`, in [0, 1), spreads the fetches: machines that start at the same time
// must not all ask a server at the same time.

// After a fetch that succeeded: in the last tenth of `every`, so that the next fetch comes before the copy is older
// than `every`.
Moment after_success(Moment now, std::chrono::seconds every, double random);

// After the `failures`-th failed fetch in a row. The pause is 5 min after the first failure, and doubles after each
// further one, up to `every`. Without a copy it begins with 10 s, because the network of a new machine may come up
// late. A server may ask for a longer pause (`retryAfter`), up to `every` or a day, whichever is longer. Up to a tenth
// of the pause is added.
Moment after_failure(Moment now, std::chrono::seconds every, bool hasCopy, uint64_t failures,
                     std::chrono::seconds retryAfter, double random);

// At the start of the service: `next` as it was planned before. If this moment has passed, a moment within the next 5
// min, or within the next tenth of `every` if that is shorter; at once without a copy. A subscription that was never
// fetched (`next` is empty) is due at once.
Moment after_start(std::optional<Moment> next, Moment now, std::chrono::seconds every, bool hasCopy, double random);

// Whether a fetch planned for `next` is due. It is also due if `next` is further ahead than a plan can be, because then
// the clock has been set back.
bool is_due(Moment next, Moment now, std::chrono::seconds every);

}  // namespace orvane

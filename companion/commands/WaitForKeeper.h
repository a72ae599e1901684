#pragma once

#include <cstddef>
#include <optional>

#include "companion/commands/CommandSet.h"
#include "companion/list/ListFile.h"

namespace orvane {

// Waits until the keeper has sent the list in this `version`, which has `sites` sites, to the extension. Waits at most
// five seconds, or longer for a large list. Returns true if the list is in force then. If not, prints why, and what to
// do, and returns false. Returns nothing, without waiting, if `options.listPath` is not the keeper's list.
std::optional<bool> wait_for_keeper(const CommonOptions& options, const ListVersion& version, size_t sites);

}  // namespace orvane

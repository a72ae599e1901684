#pragma once

#include <cstddef>
#include <optional>

#include "companion/commands/CommandSet.h"
#include "companion/list/ListFile.h"

namespace orvane {

// Waits until the keeper has sent this version of the list's file, which has `sites` sites, to the extension: at most
// five seconds, and longer for a large list. Returns true when it has. Otherwise prints why not and what to do, and
// returns false. Returns nothing, without waiting, when the keeper serves another file.
std::optional<bool> wait_for_keeper(const CommonOptions& options, const ListVersion& version, size_t sites);

}  // namespace orvane

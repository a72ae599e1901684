#pragma once

#include <cstddef>
#include <optional>

#include "companion/commands/CommandSet.h"
#include "companion/list/ListFile.h"

namespace orvane {

// Waits until the extension has this version of the list's file, with so many sites: some seconds, and more for a large
// list. Where it has not, standard error has the reason and what to do. Gives whether it has; nothing where no keeper
// is meant to send that file.
std::optional<bool> wait_for_keeper(const CommonOptions& options, const ListVersion& version, size_t sites);

}  // namespace orvane

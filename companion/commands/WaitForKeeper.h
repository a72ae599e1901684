#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "companion/commandline/CommandSet.h"
#include "companion/list/ListFile.h"

namespace orvane {

// Whether a change of the list is in force.
struct Effect {
  std::optional<bool> isInForce{};  // nothing if unknown, or if `options.listPath` is not the keeper's list
  std::string reason{};             // why it is not in force, or why this is unknown, and what to do
};

// Waits until the keeper has sent the list in this `version`, which has `sites` sites, to the extension. Waits at most
// five seconds, or longer for a large list. Does not wait if `options.listPath` is not the keeper's list.
Effect wait_for_keeper(const CommonOptions& options, const ListVersion& version, size_t sites);

// If a change is not in force: prints that it is saved, and the reason. Returns the words with which each line
// that says what has changed begins; empty if the change is in force.
std::string report_effect(const Effect& effect);

}  // namespace orvane

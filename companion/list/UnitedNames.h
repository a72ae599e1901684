#pragma once

#include <span>
#include <string>
#include <vector>

#include "companion/list/BlockList.h"
#include "companion/list/PackedNames.h"
#include "companion/list/ReadOnlyList.h"

namespace orvane {

// Names that are in force, from a list of this rank.
struct RankedNames {
  Rank rank;
  const PackedNames* names;
};

// The names that the extension must hold so that all lists are in force: each once, sorted.
//
// - If an exception would unblock a host that a name of a higher rank covers, the function leaves the exception out,
//   because the extension would apply it to the names of all lists. In its place, the function leaves out the names of
//   the exception's own rank and of lower ranks that are the exception's host or below it. Names above this host stay,
//   and so still block it.
// - If a site of the machine's list is suspended, the function leaves out the names of lower ranks that are the site's
//   host or below it. Otherwise these names would block the host during the suspension.
//
// `suspended`: HeldNames::suspended of the machine's list.
std::vector<std::string> unite(std::span<const RankedNames> lists,
                               const std::vector<std::pair<std::string, Moment>>& suspended);

}  // namespace orvane

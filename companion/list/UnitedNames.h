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

// The names that the extension must hold so that all lists are in force: each once, sorted. An exception that the
// extension holds would have an effect on the names of all lists. So:
//
//   an exception touches a name of a higher rank    it is left out, and so are the names of its own rank and of lower
//                                                   ranks that are its host or below it
//   a site of the machine's list is suspended       names of lower ranks that are its host or below it are left out
//
// An exception touches a name if it is for the name's host, for a host below a name that covers subdomains, or for a
// host above. If an exception is left out, a name of its own rank or of a lower rank that is above its host blocks the
// host all the same. `suspended`: HeldNames::suspended of the machine's list.
std::vector<std::string> unite(std::span<const RankedNames> lists,
                               const std::vector<std::pair<std::string, Moment>>& suspended);

}  // namespace orvane

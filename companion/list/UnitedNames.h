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

// The names that the extension must hold so that all lists are in force: each once, sorted. The extension would apply
// an exception to the names of all lists. So some names are left out:
//
//   case                                            left out
//   an exception touches a name of a higher rank    the exception; and the names of its own rank and of lower ranks
//   that
//                                                   are its host or below it
//   a site of the machine's list is suspended       the names of lower ranks that are the site's host or below it
//
// An exception touches a name if its host is the name's host, a host above that, or, if the name covers subdomains, a
// host below that. In the first case of the table, a name above the exception's host stays, so it still blocks the
// host. `suspended`: HeldNames::suspended of the machine's list.
std::vector<std::string> unite(std::span<const RankedNames> lists,
                               const std::vector<std::pair<std::string, Moment>>& suspended);

}  // namespace orvane

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
//   case                                        left out
//   an exception would unblock the host of a    the exception, and the names of its own rank and of lower ranks that
//   name of a higher rank, or another host      are the exception's host or below it
//   that this name covers
//   a site of the machine's list is suspended   the names of lower ranks that are the site's host or below it
//
// In the first case of the table, a name above the exception's host stays, so it still blocks this host. `suspended`:
// HeldNames::suspended of the machine's list.
std::vector<std::string> unite(std::span<const RankedNames> lists,
                               const std::vector<std::pair<std::string, Moment>>& suspended);

}  // namespace orvane

#pragma once

#include <cstddef>
#include <string_view>

namespace orvane {

// The Levenshtein distance of two words: the smallest number of insertions, removals and replacements of a byte that
// turn one into the other.
size_t edit_distance(std::string_view one, std::string_view other);

}  // namespace orvane

#include "companion/text/EditDistance.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace orvane {

size_t edit_distance(std::string_view one, std::string_view other) {
  std::vector<size_t> row(other.size() + 1);
  for (size_t j = 0; j <= other.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= one.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i);
    for (size_t j = 1; j <= other.size(); ++j) {
      const size_t replaced = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({replaced, row[j] + 1, row[j - 1] + 1}));
    }
  }
  return row.back();
}

}  // namespace orvane

#include "companion/list/PackedNames.h"

#include <algorithm>

namespace orvane {

PackedNames::PackedNames(std::vector<std::string_view> names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  size_t bytes = 0;
  for (std::string_view name : names) bytes += name.size() + 1;
  text_.reserve(bytes);
  for (std::string_view name : names) text_.append(name).push_back('\n');
  count_ = names.size();
}

// A binary search over the bytes of the text. `first` and `last` are the starts of lines, or the end of the text.
bool PackedNames::contains(std::string_view name) const {
  const std::string_view text = text_;
  size_t first = 0, last = text.size();
  while (first < last) {
    const size_t middle = first + (last - first) / 2;
    const size_t before = middle == 0 ? std::string_view::npos : text.rfind('\n', middle - 1);
    const size_t start = before == std::string_view::npos ? 0 : before + 1;
    const size_t end = text.find('\n', start);
    const int order = text.substr(start, end - start).compare(name);
    if (order == 0) return true;
    if (order < 0) {
      first = end + 1;
    } else {
      last = start;
    }
  }
  return false;
}

}  // namespace orvane

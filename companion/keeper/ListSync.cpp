#include "companion/keeper/ListSync.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "companion/text/Properties.h"
#include "platform/Clock.h"

namespace orvane {
namespace {

using Suspensions = std::vector<std::pair<std::string, Moment>>;

Value date_of(Moment moment) { return Value::date(static_cast<double>((moment - kAbsoluteTimeReference).count())); }

// Sends the dates of those names that are among the sorted `names`. Returns how many dates were sent.
uint64_t send_dates(Client& client, const Suspensions& suspended, const std::vector<std::string>& names) {
  uint64_t count = 0;
  for (const auto& [name, until] : suspended) {
    if (!std::binary_search(names.begin(), names.end(), name)) continue;
    client.setProperties(Value::dictionary({{Value::string(kDontBlockUntil), date_of(until)}}), Value::string(name));
    ++count;
  }
  return count;
}

// The elements of `from` that are not in `without`; both are sorted.
template <class Sorted>
Sorted difference(const Sorted& from, const Sorted& without) {
  Sorted result;
  std::set_difference(from.begin(), from.end(), without.begin(), without.end(), std::back_inserter(result));
  return result;
}

}  // namespace

uint64_t send_all(Client& client, const HeldNames& list) {
  client.setHostnames(list.names, nullptr);
  return 1;
}

bool needs_whole_list(const HeldNames& before, const HeldNames& after) {
  size_t differing = 0;
  auto old = before.names.begin(), fresh = after.names.begin();
  while (old != before.names.end() && fresh != after.names.end()) {
    const int order = old->compare(*fresh);
    if (order != 0) ++differing;
    if (order <= 0) ++old;
    if (order >= 0) ++fresh;
  }
  differing += static_cast<size_t>(before.names.end() - old) + static_cast<size_t>(after.names.end() - fresh);
  return differing > kLargestDifference;
}

uint64_t send_difference(Client& client, const HeldNames& before, const HeldNames& after) {
  std::vector<std::string> removed = difference(before.names, after.names);
  std::vector<std::string> added = difference(after.names, before.names);
  // Send the dates before removeHostnames(), because the extension keeps a date only for a name that it holds.
  uint64_t edits = send_dates(client, after.suspended, before.names);
  if (!removed.empty()) client.removeHostnames(removed);
  if (!added.empty()) client.addHostnames(added);
  return edits + removed.size() + added.size();
}

}  // namespace orvane

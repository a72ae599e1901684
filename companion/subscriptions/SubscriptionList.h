#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvane {

// What a list from a web server has.
struct ListCounts {
  uint64_t names = 0;  // without the exceptions
  uint64_t exceptions = 0;
  uint64_t duplicates = 0;    // names that occurred before
  uint64_t skipped = 0;       // names like localhost, and rules that are not about a whole host
  uint64_t rejected = 0;      // lines that are no host names
  std::string firstRejected;  // the first of these lines and why; safe for a terminal; empty if there is none
};

// A list from a web server, in the form of orvane-list(5).
struct SubscriptionList {
  std::string text;  // a line for each site, with "only" or "allowed" if need be
  ListCounts counts;
};

inline constexpr uint64_t kMostSubscribedNames = 1'000'000;

// Converts a list as read_import() does, with all sites in one group. A site that the list suspends is blocked
// nevertheless. `source` is the comment at the top of the result: one line of printable ASCII. Throws InputError if the
// body is no list, has no name with a dot, or has more than kMostSubscribedNames.
SubscriptionList convert_list(std::string_view body, const std::string& group, const std::string& source);

}  // namespace orvane

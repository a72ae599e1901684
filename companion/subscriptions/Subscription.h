#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/Group.h"

namespace orvane {

// A list on a web server, of which orvane-fetcher keeps a copy up to date.
struct Subscription {
  std::string name;  // has the form that subscription_name_fault() checks, so it can be a part of a file's name
  std::string url;   // has the form that url_fault() checks
  std::string group{kDefaultGroupName};
  std::chrono::seconds every = std::chrono::hours(24);  // the time between two fetches; at least kShortestInterval
  std::string key;          // a public key of minisign(1) that verifies each copy; empty if copies need no signature
  bool isInsecure = false;  // http is allowed
  bool operator==(const Subscription&) const = default;
};

inline constexpr std::chrono::seconds kShortestInterval = std::chrono::hours(1);
inline constexpr size_t kMostSubscriptions = 100;

// The file with the subscriptions, in the folder of the machine's list.
inline constexpr const char* kSubscriptionsName = "subscriptions";
// The file with the requests to fetch a subscription now, in the same folder.
inline constexpr const char* kRequestsName = "subscriptions.refresh";

// What is wrong with a name, a URL or a key, and what to do; empty if nothing is.
std::string subscription_name_fault(std::string_view name);
std::string url_fault(std::string_view url, bool isInsecure);
std::string key_fault(std::string_view key);

// Reads the time between two fetches. Throws InputError.
std::chrono::seconds read_interval(std::string_view text);

// A name for a subscription, made from the host of its URL. Differs from all names that are `taken`.
std::string name_for_url(std::string_view url, const std::vector<Subscription>& taken);

// The host and port of a URL, which contain nothing secret.
std::string_view authority_of(std::string_view url);

// The line of a subscription: NAME URL [group=GROUP] [every=DURATION] [key=KEY] [insecure]. A comment starts as in
// orvane-list(5).
std::string line_of(const Subscription& subscription);

struct SubscriptionFile {
  struct BadLine {
    size_t line;        // counted from 1
    std::string name;   // the first word, if it has the form of a name
    std::string fault;  // what is wrong and what to do
  };
  std::vector<Subscription> subscriptions;
  size_t badLineCount = 0;
  std::vector<BadLine> badLines;  // only the first kBadLinesKept
  static constexpr size_t kBadLinesKept = 100;

  const Subscription* find(std::string_view nameOrUrl) const;
};
SubscriptionFile read_subscriptions(std::string_view text);

// The text without the lines of this subscription. All other lines stay as they are.
std::string without_subscription(std::string_view text, std::string_view name);

// The latest request to fetch a subscription.
struct RefreshRequest {
  // The number of the previous request, plus 1; 0 follows the greatest number. The fetcher carries out the request if
  // this number differs from that of the last request that it carried out. Members of the group may write any number,
  // so a comparison by size would let them block all later requests.
  uint64_t number = 0;
  std::string accepted;  // the SHA-256 of a copy that may be in force although it is much smaller; empty if none
};
using RefreshRequests = std::map<std::string, RefreshRequest, std::less<>>;  // by the subscriptions' names

// The file of the requests has a line for each: NAME NUMBER [accept=SHA256]. Other lines are ignored.
RefreshRequests read_requests(std::string_view text);
std::string text_of(const RefreshRequests& requests);

}  // namespace orvane

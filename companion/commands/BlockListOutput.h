#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/keeper/KeeperState.h"
#include "companion/list/BlockList.h"

namespace orvane {

// Describes a site to people: "example.com and its subdomains", or the host alone for a site without subdomains.
std::string site_text(const ListedSite& site);

// A JSON object with the members "host", "scope" ("subdomains", "exact" or "exception") and "suspended". It also has
// "unicode" for an international name, and "until" if the site has a suspension, even one that has ended.
nlohmann::json site_json(const ListedSite& site, Moment now);

// What the list's file does not say about what is in force.
struct ListInForce {
  std::vector<KeeperState::GroupState> groups;  // one for each group of the list, and then for each of goneGroups
  std::vector<Group> goneGroups{};              // groups in force or guarded that the file no longer has
  std::optional<std::string> shownGroup{};      // print the state of this group alone
  // The sites that a lock or a delay still blocks, although the file no longer blocks them, or blocks less of them.
  struct StillBlocked {
    ListedSite site;  // ListedSite::group is not used
    std::string group;
    std::optional<Moment> until;  // nothing if unknown, because the keeper's state has only the first such sites
  };
  std::vector<StillBlocked> stillBlocked;
};
// `keeper`: the keeper of this list. `inForce`: the result of list_in_force().
ListInForce find_in_force(const BlockList& list, const std::optional<KeeperState>& keeper,
                          const std::optional<BlockList>& inForce, Moment now);

// Print all sites on standard output. `inForce`: null to leave it out. print_file() prints it as comments.
void print_table(const BlockList& list, const ListInForce& inForce, Moment now);  // for people, with totals
void print_file(const BlockList& list, const ListInForce* inForce, Moment now);   // as the list's file
void print_hosts(const BlockList& list);                                          // without the exceptions
void print_sites_json(const BlockList& list, const ListInForce* inForce, Moment now);

// Prints an error for each of these malformed lines of a list's file. `count` is the number of all malformed lines of
// the file; if it is larger, a last error says how many more there are.
void report_bad_lines(const std::vector<BlockList::BadLine>& lines, size_t count, const std::string& path);

}  // namespace orvane

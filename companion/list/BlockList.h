#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "companion/list/Group.h"
#include "companion/list/LineTable.h"
#include "companion/text/TimeText.h"
#include "platform/KeyedHash.h"
#include "platform/names/Subdomains.h"

namespace orvane {

// What a line of the list says about its host. The values are ordered: if an import names a host several times, the
// host gets the greatest of the values.
enum class Scope {
  ExactName,   // this host is blocked
  Subdomains,  // this host and all its subdomains are blocked
  Exception,   // this host and all its subdomains are allowed, even if other lines block them
};

// A site in a group of the machine's list.
struct ListedSite {
  std::string host;  // in the form of normalize_hostname()
  Scope scope = Scope::Subdomains;
  std::optional<Moment> until;  // suspended (not blocked) before this moment; never set for an exception
  GroupIndex group = kDefaultGroup;
  bool isSuspended(Moment now) const { return until && now < *until; }
  bool operator==(const ListedSite&) const = default;
};

// The name under which a host is put on the list: without a leading "www." or "m.". The name keeps this prefix if the
// rest has no dot ("www.com"), is a public suffix ("www.gov.uk"), or could itself lose a prefix ("www.m.example.com").
// A view into `host`.
std::string_view site_of(std::string_view host);

// Whether the site's line covers subdomains, too. The line of a public suffix or of a name without a dot covers only
// its host, as for covering_hosts() (Subdomains.h).
bool has_subdomains(const ListedSite& site);

// The name that the extension must hold for a site: the host, with the mark of its scope (Subdomains.h).
std::string name_of(const ListedSite& site);
// The host of such a name: a view into `name`.
std::string_view host_of(std::string_view name);
// How many of these names block hosts: all but the names of exceptions.
size_t count_blocking(const auto& names) {
  return static_cast<size_t>(std::count_if(names.begin(), names.end(),
                                           [](std::string_view name) { return !name.starts_with(kExceptionMark); }));
}

// The machine's list. orvane-list(5) describes its text. Comments, blank lines and invalid lines are kept unchanged.
// Not thread-safe.
class BlockList {
 public:
  struct BadLine {
    size_t line;        // counted from 1
    std::string text;   // without its comment, at most 200 bytes
    std::string fault;  // what is wrong and what to do
  };

  static BlockList parse(std::string_view text);
  std::string text() const;

  // The groups. An index stays valid when other groups are added or removed; a removed group has an empty name. The
  // first group is the default group.
  const std::vector<Group>& groups() const { return groups_; }
  const Group& groupOf(const ListedSite& site) const { return groups_[site.group]; }
  std::optional<GroupIndex> findGroup(std::string_view name) const;
  // Adds a group at the end of the list. The list must have no group of this name, and fewer than kMostGroups groups.
  static constexpr size_t kMostGroups = 1000;
  GroupIndex addGroup(std::string_view name);
  // Removes a group with its sites and settings, and with all comments after its header. Not for the default group.
  void removeGroup(GroupIndex group);
  // Replaces all of the group's lines with this key by one line for each value. The values must be valid.
  void setSetting(GroupIndex group, std::string_view key, const std::vector<std::string>& values);

  // The sites, in the order of their lines. If a host has several lines in a group, only the last of them has an
  // effect.
  std::vector<ListedSite> sites() const;
  void forEachSite(const std::function<void(const ListedSite&)>& visit) const;  // the same sites, not copied
  size_t size() const { return lineByHost_.size(); }                            // the number of sites
  size_t blockingSize() const;                                                  // the same, without the exceptions
  std::vector<size_t> sitesOfGroups() const;                                    // how many sites each group has
  const std::vector<BadLine>& badLines() const { return badLines_; }

  // The site with exactly this host in this group; null if there is none. Valid until the next change of the list.
  const ListedSite* find(std::string_view host, GroupIndex group = kDefaultGroup) const;

  // The sites with exactly this host, in all groups.
  void forEachSiteOf(std::string_view host, const std::function<void(const ListedSite&)>& visit) const;

  // Adds a site at the end of its group, or replaces the site with the same host in that group and keeps the comment on
  // that site's line. Returns whether anything changed.
  bool put(ListedSite site);
  // Removes the site with exactly this host from the group, all its lines included. Returns whether the group had the
  // site.
  bool remove(std::string_view host, GroupIndex group = kDefaultGroup);

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  enum class Kind : uint8_t { Header, Setting, Other };
  struct Line {
    // As in the file, without the line end. Empty, to save memory, if the line equals line_of(site).
    std::string text;
    std::optional<ListedSite> site;  // none for a header, a setting, a comment, a blank line or a bad line
    uint32_t earlier = kNone;        // the previous line with the same site
    GroupIndex group = kDefaultGroup;
    Kind kind = Kind::Other;
    bool isSuperseded = false;  // a later line has the same site
    bool isRemoved = false;
  };
  // Where text() inserts the lines that a group gets after parse(): its header and settings before the line `settings`,
  // its sites before the line `end`.
  struct Section {
    size_t settings = 0, end = 0;
  };
  void parseLine(std::string_view given, std::string_view words, std::optional<GroupIndex>& group);
  void append(Line line);
  // The first site with exactly this host for which isWanted(site) returns true; kNotFound if there is none.
  template <class Predicate>
  LineTable::Position locateIf(std::string_view host, uint32_t hash, Predicate isWanted) const;
  LineTable::Position locate(std::string_view host, uint32_t hash, GroupIndex group) const;
  std::string textOf(const Line& line) const;
  std::vector<uint32_t> addedLines() const;
  size_t placeOf(const Line& line) const;

  std::vector<Line> lines_;
  size_t parsedLines_ = 0;  // the lines after these were added later
  std::vector<Group> groups_{{std::string(kDefaultGroupName), true, {}, {}, {}}};
  std::vector<Section> sections_{1};  // one for each group
  std::vector<BadLine> badLines_;
  // The line of each site, by the keyed hash of its host. The hosts themselves are only in lines_: a second copy would
  // take most of the memory.
  LineTable lineByHost_;
};

// Gives `list` a group with the name and the settings of `group`, except for a request for a lock. Returns its index.
GroupIndex copy_settings(const Group& group, BlockList& list);
// Whether the two groups have the same settings. A request for a lock does not count as a setting.
bool has_same_settings(const Group& one, const Group& other);

// Which groups are in force at a moment.
struct GroupStates {
  std::vector<bool> isInForce;       // one for each group of the list
  std::optional<Moment> nextChange;  // the first moment at which one of them changes
};
GroupStates group_states(const BlockList& list, Moment now);

// The sites on the list that decide about a host. decide() looks on the list for the host itself, and then for the
// domains above it, because the extension asks its provider in this order. A null pointer means that there is no such
// site. Valid until the next change of the list.
struct Decision {
  const ListedSite* blocking = nullptr;   // blocks the host, unless there is an exception
  const ListedSite* suspended = nullptr;  // would block the host if it were not suspended; of several such sites, the
                                          // one whose suspension ends first
  const ListedSite* exception = nullptr;  // lets the host pass, even if there is a `blocking` site
  const ListedSite* inactive = nullptr;   // covers the host, but its group is not in force
  bool isBlocked() const { return blocking != nullptr && exception == nullptr; }
};
Decision decide(const BlockList& list, std::string_view host, Moment now, const GroupStates& states);
Decision decide(const BlockList& list, std::string_view host, Moment now);

// An exception for a host allows blocked sites in whole or in part: sites that are the host or below it, and sites
// whose subdomains include the host. Returns the groups of these sites for each of the hosts, each group once.
std::unordered_map<std::string_view, std::vector<GroupIndex>, KeyedHash> groups_opened_by(
    const BlockList& list, const std::vector<std::string_view>& hosts);

// The names that the extension must hold at a given moment. It must hold a site's name if the site is in a group that
// is in force, and is not suspended there.
struct HeldNames {
  std::vector<std::string> names;                         // sorted
  std::vector<std::pair<std::string, Moment>> suspended;  // sorted; each name is left out of `names` until its moment
  // The first moment at which a suspension ends, or a group comes into force or goes out of force.
  std::optional<Moment> nextChange;
};
HeldNames held_names(const BlockList& list, Moment now, const GroupStates& states);
HeldNames held_names(const BlockList& list, Moment now);

}  // namespace orvane

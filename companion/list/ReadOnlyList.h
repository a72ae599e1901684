#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/BlockList.h"
#include "companion/list/PackedNames.h"

namespace orvane {

// A drop-in is a list of the administrator; a subscription is a list that orvane-fetcher has fetched for the members of
// the group orvane.
enum class ListKind { DropIn, Subscription };

// Whose line wins if two lists disagree about a host. An exception or a suspension has an effect on the names of lists
// of its own rank and of lower ranks.
enum class Rank {
  Open,   // a subscription, or a drop-in that says "suspendable"
  Own,    // the machine's own list
  Fixed,  // any other drop-in
};

// A list that is in force beside the machine's list, and that commands cannot change. orvane-list(5) describes its
// text: that of the machine's list, without suspensions and without settings of groups.
struct ReadOnlyList {
  struct Section {
    std::string group;
    PackedNames names;  // in the form of name_of()
  };

  ListKind kind = ListKind::DropIn;
  bool isSuspendable = false;  // a drop-in's setting
  std::vector<Section> sections;
  size_t badLineCount = 0;
  std::vector<BlockList::BadLine> badLines;  // only the first kBadLinesKept
  static constexpr size_t kBadLinesKept = 20;

  // `goodLines`: if not null, gets the lines that are not bad, without their comments. If the lines below a bad header
  // count for the default group, it gets the header of this group.
  static ReadOnlyList parse(std::string_view text, ListKind kind, std::string* goodLines = nullptr);
  Rank rank() const { return kind == ListKind::DropIn && !isSuspendable ? Rank::Fixed : Rank::Open; }
  size_t size() const;          // the number of names
  size_t blockingSize() const;  // the same, without the exceptions

  // Whether the section's names are in force: true unless the section's group is a group of the machine's list that is
  // not in force. `groups` says of each group of the machine's list whether it is in force. In a list of the rank
  // Fixed, all sections are always in force: members of the user group orvane may change the groups of the machine's
  // list, but must not switch off such a list.
  using GroupsInForce = std::map<std::string, bool, std::less<>>;
  bool isInForce(const Section& section, const GroupsInForce& groups) const;
};

// The key of a drop-in's setting. With "suspendable=yes", users may suspend the drop-in's names and make exceptions for
// them.
inline constexpr std::string_view kSuspendableKey = "suspendable";

// Whether a file of this name in the folder for this kind of list is a list.
bool is_list_name(std::string_view name, ListKind kind);

}  // namespace orvane

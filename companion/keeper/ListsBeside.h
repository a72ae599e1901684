#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companion/keeper/KeeperState.h"
#include "companion/list/ReadOnlyList.h"

namespace orvane {

// A line of a read-only list.
struct LineBeside {
  std::string path;
  ListKind kind = ListKind::DropIn;
  Rank rank = Rank::Fixed;
  ListedSite site;
  std::string group;
};

// For one host: the lines of a read-only list that may concern this host. They are at least all lines about the host's
// registrable domain and about hosts below this domain.
struct ListPart {
  std::string path;
  std::shared_ptr<const ReadOnlyList> list;      // only the sections that are in force
  std::shared_ptr<const ReadOnlyList> inactive;  // only the others
};

// The line of the lists of this rank that decides about the host: one that blocks it, or an exception for it.
std::optional<LineBeside> find_line(const std::vector<ListPart>& parts, Rank rank, bool isException,
                                    const std::string& host);

// The line that would block the host if its group were in force.
std::optional<LineBeside> find_inactive_line(std::vector<ListPart> parts, const std::string& host);

// Whether the keeper sends names that block the host, if `list` is the machine's list and `parts` are the others.
bool is_blocked(const BlockList& list, const std::vector<ListPart>& parts, const std::string& host, Moment now,
                const GroupStates& states);

// "the line "example.com" of the administrator's list "/etc/orvane-se/lists.d/school.list""
std::string line_text(const LineBeside& line);

// The read-only lists that are in force beside the machine's list, for commands. Reads a file when it is needed for the
// first time, and prints an error if the file cannot be read.
class ListsBeside {
 public:
  // `keeper`: the keeper of the machine's list. Without a keeper, no list is in force.
  explicit ListsBeside(const std::optional<KeeperState>& keeper);

  std::vector<ListPart> partsAbout(const std::string& host);
  // The line that blocks the host: of a list with the rank Fixed, or if there is none, Open. Nothing if an exception of
  // the same or a higher rank allows the host.
  std::optional<LineBeside> blockingLine(const std::string& host);

 private:
  struct File {
    std::string path;
    ListKind kind;
    std::optional<std::string> text;
    std::optional<ListPart> whole;  // of a drop-in
  };
  ListPart partOf(const File& file, std::string_view text) const;

  std::deque<File> files_;
  ReadOnlyList::GroupsInForce groups_;
};

}  // namespace orvane

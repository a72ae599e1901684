#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companion/client/ControlChannel.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/ReadOnlyList.h"
#include "companion/list/UnitedNames.h"

namespace orvane {

// The room that all these names take in a message to the extension.
template <class Names>
uint64_t room_of_all(const Names& names) {
  uint64_t room = 0;
  for (std::string_view name : names) room += room_of(name);
  return room;
}

// If a list cannot be read, it is read again after this time, even if nothing has changed.
inline constexpr std::chrono::seconds kRereadInterval(60);

// The lists in the folders of read-only lists. While a file cannot be read, its last good copy stays in force. Not
// thread-safe.
class ReadOnlyLists {
 public:
  // At most this many files are read: first the drop-ins, then the subscriptions, each in the order of the files'
  // names.
  static constexpr size_t kMostLists = 256;

  // `room`: the room for the names of all lists, the machine's list included. A name that several lists have counts
  // once for each of them.
  // `removalDelay`: for this time, a list keeps its names if its file is missing or has fewer names. Editors and
  // programs that copy files remove or empty a file for a moment.
  ReadOnlyLists(const std::string& dropInsPath, const std::string& subscriptionsPath, uint64_t room = kMessageRoom,
                std::chrono::milliseconds removalDelay = std::chrono::seconds(1));

  // The paths to watch, in the form of PathWatch.
  std::vector<std::string> paths() const;

  // Reads the files that have changed since the last call. Logs errors and bad lines. Returns whether a list has
  // changed.
  bool refresh();
  // When to call refresh() again, even if no file changes.
  std::optional<std::chrono::steady_clock::time_point> due() const;

  // Decides which lists are in force, and logs the others. Lists of the rank Fixed get room first, then the machine's
  // list, which takes `ownRoom`, then the other lists, each in their order. Returns the names of those groups that are
  // in force. The pointers are valid until the next call of refresh().
  std::vector<RankedNames> inForce(uint64_t ownRoom, const ReadOnlyList::GroupsInForce& groups);
  bool hasFixed() const;  // whether a list of the rank Fixed has been read
  std::vector<KeeperState::ListState> states() const;

 private:
  struct Folder {
    ListKind kind;
    std::string path;  // ends in a slash
    std::string error;
  };
  struct Entry {
    ListVersion version;
    ReadOnlyList list;
    KeeperState::ListState state;
    uint64_t room = 0;
    bool hasCopy = false;     // `list` has what the file had when it was last read
    bool isTooLarge = false;  // the names are not kept, because other lists of its rank leave too little room
    std::string readError;
    bool isMissing = false;  // there is no file
    // Since when the file has been missing, or has had fewer names than `list`.
    std::optional<std::chrono::steady_clock::time_point> fewerSince;
  };

  void findFiles(Folder& folder, std::vector<Entry>& found);
  bool keepsNames(Entry& entry) const;
  bool read(Entry& entry, bool hasRoom);

  std::vector<Folder> folders_;
  const uint64_t room_;
  const std::chrono::milliseconds removalDelay_;
  std::vector<Entry> lists_;
  std::string firstSurplus_;  // the first file after the first kMostLists
};

}  // namespace orvane

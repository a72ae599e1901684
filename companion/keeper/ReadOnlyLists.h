#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companion/keeper/KeeperState.h"
#include "companion/list/ReadOnlyList.h"

namespace orvane {

// The room that a name takes in a message to the extension, in words. A message has a limit of words and a limit of
// names. The result is at least the quotient of the two limits. So names that fit by their words are not too many.
uint64_t room_of(std::string_view name);
inline constexpr uint64_t kMessageRoom = (uint64_t{32} << 20) - 1024;

// The lists in the folders of read-only lists. While a file cannot be read, its last good copy stays in force. Not
// thread-safe.
class ReadOnlyLists {
 public:
  // At most this many files are read: first the drop-ins, then the subscriptions, each in the order of the files'
  // names.
  static constexpr size_t kMostLists = 256;

  // `room`: the room for the names of all lists, the machine's list included. A name that several lists have counts
  // once for each of them.
  ReadOnlyLists(const std::string& dropInsPath, const std::string& subscriptionsPath, uint64_t room = kMessageRoom);

  // The paths to watch, in the form of PathWatch.
  std::vector<std::string> paths() const;

  // Reads the files that have changed since the last call. Logs errors and bad lines. Returns whether a list has
  // changed.
  bool refresh();
  // Whether something could not be read, so that refresh() should be called again after a while.
  bool hasErrors() const;

  // Decides which lists are in force: those that have room beside `ownRoom`, the room of the machine's list, in their
  // order. Logs the others. The pointers are valid until the next call of refresh().
  std::vector<const ReadOnlyList*> inForce(uint64_t ownRoom);
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
    bool isTooLarge = false;  // the names are not kept, because the lists before leave too little room
    std::string readError;
  };

  void findFiles(Folder& folder, std::vector<Entry>& found);
  bool read(Entry& entry, bool again);

  std::vector<Folder> folders_;
  const uint64_t room_;
  std::vector<Entry> lists_;
  std::string firstSurplus_;  // the first file after the first kMostLists
};

}  // namespace orvane

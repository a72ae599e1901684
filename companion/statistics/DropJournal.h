#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "companion/text/TimeText.h"

namespace orvane {

// An entry of the extension in the journal, for some dropped connections.
struct DropEntry {
  Moment when;
  std::string host;     // printable ASCII (DropEntry.h of the platform); empty if the entry has only a count
  std::string browser;  // printable ASCII; empty if it is unknown
  uint64_t count = 1;   // of connections
};

// The entries of the package's extension in a journal. Anybody can write entries with the same fields to the journal,
// so an entry counts only if the journal itself says that it comes from the extension's unit.
class DropJournal {
 public:
  // `folder` has the files of a journal; the empty text means the machine's own journal.
  explicit DropJournal(std::string folder = "") : folder_(std::move(folder)) {}

  // Calls `take` for each entry written at `since` or later, and before `until`. Throws FileError if the machine has no
  // journal, or if the journal cannot be read, with advice for a user who may not read it.
  void read(Moment since, Moment until, const std::function<void(DropEntry)>& take) const;

  // When the last entry before `moment` was written. Throws as read().
  std::optional<Moment> lastBefore(Moment moment) const;

 private:
  std::string folder_;
};

}  // namespace orvane

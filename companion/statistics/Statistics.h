#pragma once

#include <optional>
#include <string>

#include "companion/statistics/DropJournal.h"
#include "companion/text/TimeText.h"

namespace orvane {

struct StatisticsOptions {
  std::string since = "today";            // as read_past() reads it
  std::optional<std::string> until = {};  // as read_past() reads it; nothing means now
  bool all = false;                       // prints all hosts, not only those that were blocked most often
  bool plot = false;
  bool json = false;
};

// Prints how often which sites were blocked in which browsers, from the entries that the extension in `bundle` has
// written to the journal. If there are none, prints why. Returns an exit code. Throws InputError for invalid times, and
// FileError if the journal cannot be read.
int show_statistics(const StatisticsOptions& options, const DropJournal& journal, const std::string& bundle,
                    Moment now);

}  // namespace orvane

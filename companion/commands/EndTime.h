#pragma once

#include <optional>
#include <string>

#include "companion/commandline/CommandSet.h"
#include "companion/text/TimeText.h"

namespace orvane {

// The options --for and --until, of which a command line has at most one.
struct EndTime {
  std::optional<std::string> duration;
  std::optional<std::string> until;

  void declare(CLI::App& command);
  bool isGiven() const { return duration || until; }
};

// The moment that the options give; one of them must be given. If --until has several readings, asks which one is
// meant. If the answer chooses none of them, or if nobody can be asked (there is no terminal, or the output is JSON),
// throws InputError with all readings, because a script must not depend on a guess. Throws InputError for invalid
// texts, too.
Moment read_end_time(const EndTime& end, const CommonOptions& options, Moment now);

}  // namespace orvane

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "companion/application/ListState.h"

namespace orvane {

// What the application has found out about the filter.
struct Protection {
  bool isSetUp = false;       // the system's preferences have a configuration of the filter
  bool isSwitchedOn = false;  // in the system's preferences
  // How `orvanectl changes` has ended. This command asks the extension how many edits of its list it has received since
  // its start. It starts with an empty list.
  std::optional<int> exitCode;  // nothing while the command runs for the first time
  std::string output, error;
  std::optional<ListState> list;  // nothing while `orvanectl status` runs for the first time
};

// The filter is on if four things hold: the preference is on, the extension answers, it has a list, and this list is
// the current one.
enum class ProtectionState { Unknown, SwitchedOff, NoAnswer, NoList, NotInForce, On };
ProtectionState state_of(const Protection& protection);

// What orvanectl has printed, without its name in front of each line and without the line break at the end.
std::string message(std::string text);

// For the window: the state, and if the filter is not on, which of the four is missing and what to do.
std::string window_text(const Protection& protection, Moment now);
// For the menu bar: the state in a few words.
std::string menu_title(ProtectionState state);

}  // namespace orvane

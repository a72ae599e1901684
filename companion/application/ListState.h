#pragma once

#include <cstdint>
#include <string>

#include "companion/text/TimeText.h"

namespace orvane {

// The arguments of orvanectl that suspend the sites of the list, that end their suspensions, and that report the list's
// state.
inline constexpr const char* kSuspendArguments = "suspend --all --for 30m";
inline constexpr const char* kResumeArguments = "resume --all";
inline constexpr const char* kStatusArguments = "status --json";

// What the application knows about the list.
struct ListState {
  bool isInForce = false;  // the extension has the current list, and nobody else has edited its names since
  uint64_t suspendedNames = 0;
  // If there are suspended names: when the suspension of some of them ends, and whether that of all of them ends then.
  Moment suspendedUntil{};
  bool endsTogether = false;
  bool isEditedByOthers = false;  // the extension has the current list, but others have edited its names since
};

// Reads what orvanectl has printed when it was run with kStatusArguments. If this is not understood, the list counts as
// not in force.
ListState list_state(const std::string& output);

// For the window and the menu, while the keeper of the list is switched on.
std::string list_text(const ListState& state, Moment now);

// Why an edit of the list with orvanectl has failed, or is not in force. Empty if it is in force.
std::string edit_fault(int exitCode, const std::string& error);

}  // namespace orvane

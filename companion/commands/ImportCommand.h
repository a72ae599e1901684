#pragma once

#include "companion/commands/CommandSet.h"

namespace orvane {

// The heading of the list's commands in the help text.
inline constexpr const char* kListGroup = "The list (it lasts)";

void declare_import_command(CommandSet& commands);

}  // namespace orvane

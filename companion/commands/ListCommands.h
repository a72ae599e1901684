#pragma once

#include "companion/commands/CommandSet.h"

namespace orvane {

// The commands for the machine's list: block, unblock, list, suspend, resume, import, export.
void declare_list_commands(CommandSet& commands);

}  // namespace orvane

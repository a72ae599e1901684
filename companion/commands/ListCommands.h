#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Declares the commands that edit or print the machine's list: block, unblock, allow, disallow, list, suspend, resume,
// import, export.
void declare_list_commands(CommandSet& commands);

}  // namespace orvane

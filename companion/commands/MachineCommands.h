#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Declares the options and commands for the machine's list. `options`: as for declare_system_commands().
void declare_machine_commands(CommandSet& commands, CommonOptions& options);

}  // namespace orvane

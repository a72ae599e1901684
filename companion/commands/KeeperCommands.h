#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Declares "status", "try" and "keep".
void declare_keeper_commands(CommandSet& commands);

}  // namespace orvane

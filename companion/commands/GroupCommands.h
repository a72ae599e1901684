#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Declares "group" with its commands, and "lock".
void declare_group_commands(CommandSet& commands);

}  // namespace orvane

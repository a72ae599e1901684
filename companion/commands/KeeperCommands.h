#pragma once

#include "companion/commands/CommandSet.h"

namespace orvane {

// The commands about the list in force: keep, status, try.
void declare_keeper_commands(CommandSet& commands);

}  // namespace orvane

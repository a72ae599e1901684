#pragma once

#include "companion/commands/CommandSet.h"

namespace orvane {

// Declares "import".
void declare_import_command(CommandSet& commands);

}  // namespace orvane

#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Declares "import".
void declare_import_command(CommandSet& commands);

}  // namespace orvane

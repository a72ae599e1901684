#include "companion/commands/CommandSet.h"

namespace orvane {

// Declares nothing: macOS has no keeper, and System Settings show whether the extension runs.
void declare_system_commands(CommandSet&, CommonOptions&) {}

}  // namespace orvane

#include "companion/commands/CommandSet.h"

namespace orvane {

// None: nothing keeps a list here, and System Settings tell what runs.
void declare_system_commands(CommandSet&, CommonOptions&) {}

}  // namespace orvane

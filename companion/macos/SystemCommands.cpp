#include "companion/CommandSet.h"

namespace orvane {

// None: the application keeps the list here, and the system knows the rest.
void declare_system_commands(CommandSet&, CommonOptions&) {}

}  // namespace orvane

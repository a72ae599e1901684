#pragma once

#include "companion/commands/CommandSet.h"

namespace orvane {

// "doctor", and "browsers policy" with what it can do.
void declare_doctor_commands(CommandSet& commands);

}  // namespace orvane

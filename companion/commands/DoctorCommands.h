#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Declares "doctor" and the commands of "browsers policy".
void declare_doctor_commands(CommandSet& commands);

}  // namespace orvane

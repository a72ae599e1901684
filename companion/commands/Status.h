#pragma once

#include "companion/commandline/CommandSet.h"

namespace orvane {

// Carries out "status": prints whether the list is in force, and the state of the services. Returns kDone if the list
// is in force, otherwise kNotInForce.
int show_status(const CommonOptions& options);

}  // namespace orvane

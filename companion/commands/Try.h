#pragma once

#include <string>

#include "companion/commands/CommandSet.h"

namespace orvane {

// Carries out "try": prints whether a browser that connects to the host now is blocked, and why. Returns kDone if the
// browser is blocked, kNotInForce if it is not blocked, and kUnknown if that is not known. Throws InputError when
// `given` is not a host name.
int try_host(const CommonOptions& options, const std::string& given);

}  // namespace orvane

#pragma once

#include <string>

#include "companion/commandline/CommandSet.h"
#include "companion/sites/SiteCommands.h"

namespace orvane {

// Carries out "try": prints whether a browser that connects to the host now is blocked, and why. If `host` is empty,
// does the same for each host of the chosen sites of the catalogue. Returns kDone if the browser is blocked at each
// host, kNotInForce if it is not blocked at one of them, and kUnknown if that is not known. Throws InputError when
// `host` is not a host name, when both or none are given, or when the catalogue lacks a site.
int try_hosts(const CommonOptions& options, const std::string& host, const SiteOptions& catalogued);

}  // namespace orvane

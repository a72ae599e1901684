#pragma once

#include <string>
#include <vector>

#include "companion/doctor/Doctor.h"

namespace orvane {

// The part of examine() for browsers. Adds findings on whether each browser is recognised, and whether it can
// hide host names from the filter.
void examine_browsers(const Facts& facts, std::vector<Finding>& findings);

// A line that names the installed browsers that may reach blocked sites: those whose program exists and for which
// examine_browsers() has a finding that is not Ok, and all browsers if HTTP/3 passes unfiltered. Empty if there are
// none.
std::string browser_warning(const Facts& facts);

}  // namespace orvane

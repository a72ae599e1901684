#pragma once

#include <string>
#include <vector>

#include "companion/doctor/Doctor.h"

namespace orvane {

// The part of examine() for browsers. Adds findings on whether each browser is recognised, and whether it can
// hide host names from the filter.
void examine_browsers(const Facts& facts, std::vector<Finding>& findings);

// A line that names the browsers in which Encrypted Client Hello may hide a blocked name. Empty if there are none.
std::string hiding_warning(const std::vector<BrowserFacts>& browsers);

}  // namespace orvane

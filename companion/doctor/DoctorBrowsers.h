#pragma once

#include <vector>

#include "companion/doctor/Doctor.h"

namespace orvane {

// The part of examine() for browsers. Adds findings on whether each browser is recognised, and whether it can
// hide host names from the filter.
void examine_browsers(const Facts& facts, std::vector<Finding>& findings);

}  // namespace orvane

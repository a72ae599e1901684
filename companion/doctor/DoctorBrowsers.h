#pragma once

#include <vector>

#include "companion/doctor/Doctor.h"

namespace orvane {

// The part of examine() that is about browsers: whether each is recognised, and what it does that the filter cannot
// see.
void examine_browsers(const Facts& facts, std::vector<Finding>& findings);

}  // namespace orvane

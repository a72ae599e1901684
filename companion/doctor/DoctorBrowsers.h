#pragma once

#include <vector>

#include "companion/doctor/Doctor.h"

namespace orvane {

// The part of examine() for browsers. Adds findings on whether each browser is recognised, and whether it uses HTTP/3
// or DNS over HTTPS.
void examine_browsers(const Facts& facts, std::vector<Finding>& findings);

}  // namespace orvane

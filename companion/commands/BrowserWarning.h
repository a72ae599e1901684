#pragma once

#include <string>

namespace orvane {

// What keeps an installed browser from being blocked, and what to do; empty if nothing does.
std::string warning_about_browsers();

}  // namespace orvane

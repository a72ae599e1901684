#include "companion/commands/BrowserWarning.h"

namespace orvane {

// On macOS a configuration profile sets the browsers, and only root may read which profiles are installed.
std::string warning_about_browsers() { return ""; }

}  // namespace orvane

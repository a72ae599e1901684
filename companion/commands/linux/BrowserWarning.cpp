#include "companion/commands/BrowserWarning.h"

#include "companion/doctor/DoctorBrowsers.h"
#include "companion/doctor/DoctorFacts.h"

namespace orvane {

std::string warning_about_browsers() { return browser_warning(gather_browser_facts()); }

}  // namespace orvane

#include "companion/text/AccessGroup.h"

namespace orvane {

// On macOS each user has a list, and every user may connect to the extension. So no group gives access.
GroupFacts look_at_group() { return {}; }

std::string access_advice(const GroupFacts&) { return "check the rights of the file and its folder"; }

}  // namespace orvane

#include "companion/text/Version.h"

namespace orvane {

const char* program_version() { return ORVANE_VERSION; }

}  // namespace orvane

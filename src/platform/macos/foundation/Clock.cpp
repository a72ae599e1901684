#include "platform/Clock.h"

#include <CoreFoundation/CFDate.h>

namespace orvane {

double absolute_time_get_current() { return CFAbsoluteTimeGetCurrent(); }

}  // namespace orvane

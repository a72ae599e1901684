#include "platform/Dispatch.h"

#include <dispatch/dispatch.h>

namespace orvane {

void dispatch_main() { ::dispatch_main(); }

}  // namespace orvane

#include "database/db.h"
#include "platform/Dispatch.h"
#include "platform/Log.h"
#include "service/app_filter.h"
#include "service/web_filter.h"
#include "service/xpc_run.h"

// The order of these steps is frozen (docs/compatibility.md). The database comes first, because verdicts need it, and
// the platform may ask for a verdict as soon as web_filter_init has been called.
int main() {
  using namespace orvane;
  ORVANE_LOG_INFO(default_log(), "starting extensions...");
  db_init();
  if (app_filter_init() != 0) return 1;
  web_filter_init();
  xpc_run();
  // At error level, so that a log that keeps only errors shows that the start succeeded.
  ORVANE_LOG_ERROR(default_log(), "OrvaneSE started...");
  orvane::dispatch_main();  // qualified, because macOS has a function ::dispatch_main, too
}

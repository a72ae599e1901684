#include "database/db.h"
#include "platform/Dispatch.h"
#include "platform/Log.h"
#include "service/app_filter.h"
#include "service/web_filter.h"
#include "service/xpc_run.h"

// The order of start-up. The database comes first: from web_filter_init on, the platform may ask for verdicts.
int main() {
  using namespace orvane;
  ORVANE_LOG_INFO(default_log(), "starting extensions...");
  db_init();
  if (app_filter_init() != 0) return 1;
  web_filter_init();
  xpc_run();
  // At error level: a start that succeeded must show up in a log that keeps errors only.
  ORVANE_LOG_ERROR(default_log(), "OrvaneSE started...");
  orvane::dispatch_main();  // a system may have one of that name itself
}

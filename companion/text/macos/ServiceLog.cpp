#include "companion/text/ServiceLog.h"

#include <os/log.h>

#include <cstdio>

#include "companion/text/Input.h"

namespace orvane {

// Also writes to the unified log, because launchd discards what an agent writes on standard error.
void service_log(const char* program, LogLevel level, const std::string& text) {
  const std::string line = printable(text, false);
  const os_log_type_t type = level == LogLevel::Error  ? OS_LOG_TYPE_ERROR
                             : level == LogLevel::Info ? OS_LOG_TYPE_INFO
                                                       : OS_LOG_TYPE_DEFAULT;
  os_log_with_type(OS_LOG_DEFAULT, type, "%{public}s", line.c_str());
  std::fprintf(stderr, "%s: %s\n", program, line.c_str());
}

}  // namespace orvane

// A program for a bundle made by a test: prints what it finds of its bundle, and logs at every level.
#include <cstdio>

#include "platform/Bundle.h"
#include "platform/Log.h"

using namespace orvane;

namespace {

void log_at_every_level(const os_log_t& log, const char* name) {
  ORVANE_LOG_DEFAULT(log, "%s default", name);
  ORVANE_LOG_INFO(log, "%s info", name);
  ORVANE_LOG_DEBUG(log, "%s debug", name);
  ORVANE_LOG_ERROR(log, "%s error", name);
}

}  // namespace

int main() {
  Bundle* bundle = bundle_get_main();
  std::printf("%s|%s\n", bundle_get_information(bundle, "CFBundleName").description().c_str(),
              bundle_copy_resource_url(bundle, "Browsers", "plist").value_or("none").c_str());
  log_at_every_level(nullptr, "null");
  log_at_every_level(os_log_create("org.example", "Loud"), "loud");
  log_at_every_level(os_log_create("org.example", "Other"), "other");
  log_at_every_level(os_log_create("org.example", "Odd"), "odd");
  log_at_every_level(os_log_create("org.stranger", "Loud"), "stranger");
  const char* hostile = "one\n2024-01-01 00:00:00.000 error [x] two\r\x1b[2J\xc2\x9b\ttab \xc3\xa9\n";
  ORVANE_LOG_ERROR(os_log_create("org.stranger", "Hostile"), "%s", hostile);
  return 0;
}

#pragma once

#include <cstdint>

namespace orvane {

// Start and end of an application filter, which does not exist yet: both do nothing (docs/compatibility.md). A status
// other than 0 would end the start-up.
int32_t app_filter_init();
void app_filter_term();

}  // namespace orvane

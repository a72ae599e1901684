#pragma once

#include <cstdint>

namespace orvane {

// Start and end of an application filter, which does not exist yet: both do nothing (docs/compatibility.md). If
// app_filter_init returned a status other than 0, the process would end.
int32_t app_filter_init();
void app_filter_term();

}  // namespace orvane

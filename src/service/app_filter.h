#pragma once

#include <cstdint>

namespace orvane {

// Would start and end an application filter. There is no application filter yet, so both functions do nothing
// (docs/compatibility.md). If app_filter_init returned a status other than 0, the process would end.
int32_t app_filter_init();
void app_filter_term();

}  // namespace orvane

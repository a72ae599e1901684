#pragma once

#include <cstdint>

namespace orvane {

// The place of a filter of applications, which there is none of. 0 for success.
int32_t app_filter_init();
// Nothing calls it: the process ends without an orderly shut-down.
void app_filter_term();

}  // namespace orvane

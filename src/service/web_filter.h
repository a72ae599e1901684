#pragma once

#include <cstdint>

namespace orvane {

// Starts the content filter. From now on the platform may make a provider and call it. Passes the platform's answer on.
int32_t web_filter_init();

}  // namespace orvane

#pragma once

#include <cstdint>

namespace orvane {

// Starts the content filter: from now on the platform may create a provider and call it. Returns the platform's status.
int32_t web_filter_init();

}  // namespace orvane

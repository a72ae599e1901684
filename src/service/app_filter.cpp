#include "service/app_filter.h"

namespace orvane {

int32_t app_filter_init() { return 0; }

void app_filter_term() {}

}  // namespace orvane

#pragma once

#include <string>

#include "platform/Foundation.h"

namespace orvane {

// An error of the Linux platform. The description says what failed, on what and why. It is not translated.
Ref<NSError> error_create(std::string description);

}  // namespace orvane

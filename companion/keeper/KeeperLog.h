#pragma once

#include <string>

#include "companion/text/ServiceLog.h"

namespace orvane {

inline void keeper_log(LogLevel level, const std::string& text) { service_log("orvanectl", level, text); }

}  // namespace orvane

#pragma once

namespace orvane {

// The wall clock's absolute time: seconds since 2001-01-01 00:00:00 UTC.
double absolute_time_get_current();

}  // namespace orvane

#pragma once

namespace orvane {

// The current absolute time by the wall clock: seconds since 2001-01-01 00:00:00 UTC.
double absolute_time_get_current();

}  // namespace orvane

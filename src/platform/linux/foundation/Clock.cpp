#include "platform/Clock.h"

#include <chrono>

namespace orvane {

double absolute_time_get_current() {
  constexpr std::chrono::seconds kReferenceInUnixTime{978307200};  // 2001-01-01 00:00:00 UTC
  std::chrono::duration<double> sinceReference =
      std::chrono::system_clock::now().time_since_epoch() - kReferenceInUnixTime;
  return sinceReference.count();
}

}  // namespace orvane

#include "platform/Clock.h"

#include <chrono>

namespace orvane {

double absolute_time_get_current() {
  return std::chrono::duration<double>(std::chrono::system_clock::now() - kAbsoluteTimeReference).count();
}

}  // namespace orvane

#include "companion/keeper/KeeperHost.h"

#include <malloc/malloc.h>
#include <sys/sysctl.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>

namespace orvane {

void notify_service_manager(const std::string&) {}

ListGuard::Now current_time() {
  timespec running{};
  clock_gettime(CLOCK_MONOTONIC, &running);  // counts while the Mac sleeps, too
  // A random text that the kernel makes when it starts.
  static const std::string start = [] {
    std::array<char, 64> text{};
    size_t size = text.size() - 1;
    const bool isKnown = sysctlbyname("kern.bootsessionuuid", text.data(), &size, nullptr, 0) == 0;
    return isKnown ? std::string(text.data()) : std::string();
  }();
  return {now_in_seconds(), std::chrono::seconds(running.tv_sec), start};
}

const bool kIsOnlyKeeper = false;  // each user who is logged in has one

void release_free_memory() { malloc_zone_pressure_relief(nullptr, 0); }

}  // namespace orvane

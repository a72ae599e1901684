#include "companion/keeper/KeeperHost.h"

#include <malloc.h>
#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstddef>
#include <ctime>

#include "platform/files/Files.h"

namespace orvane {

void notify_service_manager(const std::string& state) { sd_notify(0, state.c_str()); }

ListGuard::Now current_time() {
  constexpr size_t kLargestStart = 64;
  timespec running{};
  clock_gettime(CLOCK_BOOTTIME, &running);
  // A random text that the kernel makes when it starts.
  static const std::string start =
      read_file_start("/proc/sys/kernel/random/boot_id", kLargestStart, Links::Refuse).value_or("");
  return {now_in_seconds(), std::chrono::seconds(running.tv_sec), start};
}

const bool kIsOnlyKeeper = true;

void release_free_memory() { malloc_trim(0); }

}  // namespace orvane

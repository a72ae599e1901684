#include "platform/Dispatch.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/host/MainSignals.h"
#include "platform/linux/host/ProviderHost.h"

namespace orvane {
namespace {

// Limit on the time to stop the filter. The stop usually takes far less time, but it may wait for a lock, a name server
// or a file system.
constexpr auto kStopTime = std::chrono::seconds(2);

// Stops the filter, or gives up after kStopTime. A filter that has not stopped blocks nothing after the process has
// ended: the kernel closes the sockets of the process, and passes packets when no process has the packet queue.
void stop_filter() {
  std::promise<void> stopped;
  auto isStopped = stopped.get_future();
  try {
    std::thread([stopped = std::move(stopped)]() mutable {
      ProviderHost::shared().stop();
      stopped.set_value();
    }).detach();
  } catch (const std::system_error&) {
    return ProviderHost::shared().stop();
  }
  if (isStopped.wait_for(kStopTime) == std::future_status::ready) return;
  ORVANE_LOG_ERROR(default_log(), "the filter did not stop in time, and ends as it is");
}

}  // namespace

void dispatch_main() {
  block_main_signals();
  wait_for_end_signal();
  sd_notify(0, "STOPPING=1");
  stop_filter();
  _exit(0);  // skips the destructors of static objects, which other threads still use
}

}  // namespace orvane

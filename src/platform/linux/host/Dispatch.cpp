#include "platform/Dispatch.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "platform/linux/host/MainSignals.h"
#include "platform/linux/host/ProviderHost.h"

namespace orvane {

void dispatch_main() {
  block_main_signals();
  wait_for_end_signal();
  sd_notify(0, "STOPPING=1");
  ProviderHost::shared().stop();
  _exit(0);  // skips the destructors of static objects, which other threads still use
}

}  // namespace orvane

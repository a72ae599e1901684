#include "platform/Dispatch.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "platform/linux/flow/FlowCounters.h"
#include "platform/linux/host/ProviderHost.h"

namespace orvane {
namespace {

sigset_t main_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&signals, signal);
  return signals;
}

}  // namespace

void block_main_signals() {
  sigset_t signals = main_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void dispatch_main() {
  block_main_signals();
  sigset_t signals = main_signals();
  for (int signal = SIGUSR1; signal == SIGUSR1;) {
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGUSR1) log_flow_counters();
  }
  // Whoever asks a second time does not want to wait for the stop: the default action ends the process.
  std::signal(SIGTERM, SIG_DFL);
  std::signal(SIGINT, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);

  sd_notify(0, "STOPPING=1");
  stop_provider_host();
  // Without the destructors of static objects: other threads still use them.
  _exit(0);
}

}  // namespace orvane

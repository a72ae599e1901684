#include "platform/Dispatch.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "platform/linux/ProviderHost.h"

namespace orvane {
namespace {

sigset_t end_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

}  // namespace

void block_end_signals() {
  sigset_t signals = end_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void dispatch_main() {
  block_end_signals();
  sigset_t signals = end_signals();
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
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

#include "platform/linux/host/MainSignals.h"

#include <csignal>
#include <initializer_list>

#include "platform/linux/flow/FlowCounters.h"

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

void wait_for_end_signal() {
  sigset_t signals = main_signals();
  for (int signal = SIGUSR1; signal == SIGUSR1;) {
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGUSR1) log_flow_counters();
  }
  std::signal(SIGTERM, SIG_DFL);
  std::signal(SIGINT, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace orvane

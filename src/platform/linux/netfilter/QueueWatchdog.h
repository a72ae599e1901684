#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// A process of our own that gives a packet queue up when the thread that serves it stops doing so: a process that
// hangs, or is stopped, would otherwise hold its packets for ever, as the kernel passes packets by only when a queue
// has no socket. It holds the queue's netlink socket too, so that it can speak in its name; it ends with this process,
// and the socket with them both.
class QueueWatchdog {
 public:
  ~QueueWatchdog() { stop(); }

  // How long the thread may be silent before the queue is given up: this, and up to half a second more.
  static constexpr int kPatienceMilliseconds = 1000;

  // `queue` stays the caller's. Returns what went wrong.
  std::optional<std::string> start(int queueSocket, uint16_t queueNumber);
  void stop();

  // The thread lives; the first call begins the watch. Call it at least twice a second. Returns true when the queue has
  // been given up since the last call: it must be bound again. A watchdog that has died is replaced.
  bool beat();

 private:
  struct Shared {
    std::atomic<uint64_t> beats{0};
    std::atomic<bool> released{false};
  };

  std::optional<std::string> startProcess();
  [[noreturn]] void watch();

  Shared* shared_ = nullptr;
  Descriptor alive_, watched_;  // the ends of a pipe that breaks with this process
  int queueSocket_ = -1;
  uint16_t queueNumber_ = 0;
  pid_t process_ = -1;
};

}  // namespace orvane

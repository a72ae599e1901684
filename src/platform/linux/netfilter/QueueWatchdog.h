#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// A child process that releases a packet queue when the thread that serves it hangs. Otherwise a hanging or stopped
// process would hold its packets for ever: the kernel passes them only when no socket has the queue.
//
// The child shares the queue's netlink socket, so that the kernel accepts its message. It ends with this process, and
// then the socket closes. Not thread-safe.
class QueueWatchdog {
 public:
  ~QueueWatchdog() { stop(); }

  // The queue is released after this time without a heartbeat, and up to half a second more.
  static constexpr int kTimeoutMilliseconds = 1000;

  // Borrows `queueSocket`. Returns an error.
  std::optional<std::string> start(int queueSocket, uint16_t queueNumber);
  void stop();

  // A heartbeat of the thread; call it at least twice a second. The first one starts the watch. Returns true when the
  // queue was released since the last call: then it must be bound again. Replaces a child that died.
  bool beat();

 private:
  struct Shared {
    std::atomic<uint64_t> beats{0};
    std::atomic<bool> released{false};
  };

  std::optional<std::string> startProcess();
  [[noreturn]] void watch();

  Shared* shared_ = nullptr;
  Descriptor pipeWriteEnd_, pipeReadEnd_;  // the pipe breaks when this process ends; the child polls its read end
  int queueSocket_ = -1;
  uint16_t queueNumber_ = 0;
  pid_t process_ = -1;
};

}  // namespace orvane

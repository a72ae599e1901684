#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// A child process that releases a packet queue when the thread that serves the queue hangs. Otherwise a hanging or
// stopped process would hold the packets for ever: the kernel passes packets only when no socket has the queue.
//
// The child shares the queue's netlink socket, because the kernel accepts the message that releases the queue only from
// this socket. The child ends when this process ends, so that the socket closes. Not thread-safe.
class QueueWatchdog {
 public:
  ~QueueWatchdog() { stop(); }

  // The queue is released when there was no heartbeat for this time; this may be noticed up to half a second later.
  static constexpr int kTimeoutMilliseconds = 1000;

  // Starts the child. `queueSocket` stays the caller's, and must be open until stop(). Returns an error.
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

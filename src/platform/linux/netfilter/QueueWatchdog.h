#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/base/Descriptor.h"

namespace orvane {

// A child process that releases a packet queue when the thread that serves the queue hangs, or falls behind the packets
// that come. Otherwise a hanging or stopped process would hold the packets for ever: the kernel passes packets only
// when no socket has the queue. The kernel drops the packets in a queue that is released.
//
// The child shares the queue's netlink socket, because the kernel accepts the message that releases the queue only from
// this socket. To measure how long packets wait, it also sends a message without effect (a probe) four times a second.
// The kernel's answer waits on the socket behind the packets that were queued before it. If the socket's buffer is
// full, the kernel sends no answer.
//
// The child ends when this process ends, so that the socket closes. Not thread-safe.
class QueueWatchdog {
 public:
  ~QueueWatchdog() { stop(); }

  // The queue is released when there was no heartbeat for this time; this may be noticed up to half a second later.
  static constexpr int kTimeoutMilliseconds = 1000;
  // The queue is also released when packets wait for longer than this. A burst of new connections may need some time,
  // but resolvers ask again after 5 s (resolv.conf(5)).
  static constexpr int kLongestWaitMilliseconds = 3000;

  // Starts the child. `queueSocket` stays the caller's, and must be open until stop(). Returns an error.
  std::optional<std::string> start(int queueSocket, uint16_t queueNumber);
  void stop();

  // A heartbeat of the thread; call it at least twice a second. The first one starts the watch. Returns true when the
  // queue was released since the last call: then it must be bound again. Replaces a child that died.
  bool beat();

  // The number of the last probe that the thread read the answer of (PacketQueue::acknowledged()).
  void setAnswered(uint32_t probe) { shared_->answered.store(probe, std::memory_order_relaxed); }

 private:
  struct Shared {
    std::atomic<uint64_t> beats{0};
    std::atomic<uint32_t> probes{0};    // sent; numbered from 1
    std::atomic<uint32_t> answered{0};  // the last one whose answer was read
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

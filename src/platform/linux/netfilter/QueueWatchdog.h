#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/files/Descriptor.h"
#include "platform/linux/base/ChildProcess.h"

namespace orvane {

// A child process that releases a packet queue (unbinds it from its socket) when the thread that serves the queue hangs
// or reads packets too slowly. Without the child, a process that hangs or is stopped would hold the packets for ever,
// because the kernel passes packets only when no socket has the queue. When a queue is released, the kernel drops the
// packets in it and passes later ones.
//
// The child shares the queue's netlink socket, because the kernel accepts the message that releases the queue only from
// this socket. While no packet waits, the child sleeps, and a hung thread does no harm. The next packet makes the
// kernel send the child a signal (SIGIO, see O_ASYNC in fcntl(2)). The child does not wait for the socket with poll(2):
// if the thread read the packet before the child ran, poll(2) would sleep on, but the signal still wakes the child.
// After the signal, the child makes a check four times a second, until no packet has come for a second.
//
//   asleep --- SIGIO: a packet is there ---> checks four times a second --- hung, or too slow ---> queue released
//     ^                                             |                                                    |
//     +-------------- no packet for 1 s ------------+                     the next beat() binds it again |
//     +--------------------------------------------------------------------------------------------------+
//
// To measure how long packets wait in the socket's buffer, each check that finds something in this buffer sends a
// message without effect (a probe). The kernel puts its answer into the buffer, behind the packets that were queued
// before, so the thread reads the answer after those packets. If the buffer is full, the kernel sends no answer.
//
// The child ends when its parent ends. Otherwise the child's copy of the descriptor would keep the netlink socket open.
// Not thread-safe.
class QueueWatchdog {
 public:
  ~QueueWatchdog() { stop(); }

  // The queue is released when packets wait and there was no heartbeat for this time. The release may come up to half a
  // second later.
  static constexpr int kTimeoutMilliseconds = 1000;
  // The queue is also released when packets wait in the socket's buffer for longer than this. The limit leaves time for
  // a burst of new connections, and is below the 5 s after which resolvers ask again (resolv.conf(5)).
  static constexpr int kLongestWaitMilliseconds = 3000;
  // While the thread that serves the queue is ready to run but gets no processor (other programs use all processors, or
  // a hypervisor has paused this machine's processor), the time does not count for the two limits above, because the
  // thread does not hang. After this third limit, the time counts again, because the thread may be in an endless loop.
  static constexpr int kLongestStarvationMilliseconds = 10'000;

  // Starts the child. `queueSocket` still belongs to the caller, and must be open until stop(). Returns an error on
  // failure.
  std::optional<std::string> start(int queueSocket, uint16_t queueNumber);
  void stop();

  // Each call is a heartbeat of the thread that serves the queue. The thread calls this before it reads packets. While
  // it handles packets, it calls this at least twice a second. The first heartbeat starts the watch. Returns true if
  // the queue was released since the last call; the caller must then bind the queue again.
  bool beat();

  // The thread calls this when it has handled all packets, before it waits for more. While no packet is there, the
  // thread need not call beat(). When the child releases the queue, the child makes the socket readable, so that the
  // thread wakes up.
  void rest() { shared_->isResting.store(true, std::memory_order_release); }

  // A descriptor for poll(2), readable when the child has died. Then call revive().
  int childDescriptor() const { return child_.descriptor(); }
  // If the child has died, starts another child.
  void revive();

  // Reports the number of the last probe whose answer the thread has read (PacketQueue::acknowledged()).
  void setAnswered(uint32_t probe) { shared_->answered.store(probe, std::memory_order_relaxed); }

 private:
  struct Shared {
    std::atomic<uint64_t> beats{0};
    std::atomic<bool> isResting{true};
    std::atomic<uint32_t> probes{0};    // the number of the last probe that was sent; the first has number 1
    std::atomic<uint32_t> answered{0};  // the number of the last probe whose answer was read
    std::atomic<bool> released{false};
    // The path /proc/PID/task/TID/stat of the thread that serves the queue. Empty before the first heartbeat.
    char status[40] = {};
  };

  std::optional<std::string> startProcess();
  void watch();
  bool hasWork() const;
  void awaitCheck(bool isQuiet, const sigset_t& mask) const;

  Shared* shared_ = nullptr;
  Descriptor pipeWriteEnd_, pipeReadEnd_;  // the pipe breaks when the parent ends; the child polls its read end
  int queueSocket_ = -1;
  uint16_t queueNumber_ = 0;
  ChildProcess child_;
};

}  // namespace orvane

#pragma once

#include <kj/async.h>
#include <kj/timer.h>

namespace orvane {

// The event port of a thread that serves one socket: it waits for that socket and for timers. It uses poll(2), which is
// enough for one descriptor. This port has advantages over KJ's own port: it needs no further descriptors, leaves
// SIGPIPE alone, wakes only for awaited events, and lets the scheduler run client and server on one processor.
class SocketEventPort final : public kj::EventPort {
 public:
  explicit SocketEventPort(int socket);

  // The promise is fulfilled when a read would not block, because bytes, the end of the stream or an error have
  // arrived. Only one caller may wait at a time.
  kj::Promise<void> whenReadable() { return await(&reading_); }
  // The promise is fulfilled when a write would not block. Only one caller may wait at a time.
  kj::Promise<void> whenWritable() { return await(&writing_); }
  // True after the peer closed the connection, or another thread shut the socket down. A caller that waits for a timer
  // only must ask, because this port does not watch the socket then.
  bool isHungUp() const;
  // Counts from now. KJ's timer alone would count from the last wait for events, which was before the last call.
  kj::Promise<void> afterDelay(kj::Duration delay);

  bool wait() override;
  bool poll() override;

 private:
  using Waiting = kj::Maybe<kj::Own<kj::PromiseFulfiller<void>>>;

  static kj::Promise<void> await(Waiting* waiting);
  void pollFor(int milliseconds);

  const int socket_;
  kj::TimerImpl timer_;
  Waiting reading_, writing_;
};

}  // namespace orvane

#pragma once

#include <kj/async.h>
#include <kj/timer.h>

namespace orvane {

// The event port of a thread that serves one socket: it waits for that socket and for timers. poll(2) is enough for one
// descriptor and has advantages over the library's own port: it needs no further descriptors, leaves SIGPIPE alone, and
// wakes only for awaited events. It also lets the scheduler run both ends of a local connection on one processor.
class SocketEventPort final : public kj::EventPort {
 public:
  explicit SocketEventPort(int socket);

  // Fulfilled when a read will not block: bytes, the end of the stream, or an error are there. One caller at a time.
  kj::Promise<void> whenReadable() { return await(&reading_); }
  // Fulfilled when a write will not block. One caller at a time.
  kj::Promise<void> whenWritable() { return await(&writing_); }
  kj::Timer& timer() { return timer_; }

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

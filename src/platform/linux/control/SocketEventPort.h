#pragma once

#include <kj/async.h>
#include <kj/timer.h>

namespace orvane {

// What an event loop waits for when its thread serves one socket: that socket, and timers. With a single descriptor
// plain poll(2) does, and does better than the library's own port: it takes no further descriptors, leaves SIGPIPE
// alone, wakes only for what is awaited, and lets the system run both ends of a local conversation on one processor.
class SocketEventPort final : public kj::EventPort {
 public:
  explicit SocketEventPort(int socket);

  // Fulfilled when a read will not block: there are bytes, the end, or an error. Each by one at a time.
  kj::Promise<void> whenReadable() { return await(&reading_); }
  // The same for a write.
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

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "platform/linux/base/SocketIO.h"
#include "platform/linux/proxy/ProxyHead.h"

namespace orvane {

// The size, in bytes, of the relay's buffer for one direction of a connection. The kernel has buffers of its own.
inline constexpr size_t kRelayBufferSize = 65536;

// Whether outbound bytes may leave: yes, not yet, or never.
enum class Gate { Open, Held, Dropped };

// Decides about the outbound bytes that are held. `ended`: no more outbound bytes will come. `silent`: the client has
// sent nothing for 3 s. After the answer Open, the question is asked only once more, when the outbound bytes end.
using GateQuestion = std::function<Gate(std::span<const uint8_t> held, bool ended, bool silent)>;

// Copies bytes between a client and its upstream, each way through a buffer of limited size. While the buffer is full
// because one side does not read, the relay does not read from the other side either. Inbound bytes pass while outbound
// bytes are held, because some servers speak first. Not thread-safe.
class Relay {
 public:
  enum class Outcome {
    Ended,    // both sides got everything
    Dropped,  // the answer to the GateQuestion was Dropped
    Broken,   // one side reset its connection, or the body is malformed or cut off; both sides must get a reset
    Stopped,  // `stop` became readable
  };

  // Borrows the sockets, which are non-blocking, and `stop`, an eventfd(2). `first` has outbound bytes that were read
  // already. With a body, the relay carries one request: it forwards the rest of the body and nothing after it, and
  // ends with the response. Without a body, the relay is a tunnel: when one side has sent everything, the relay shuts
  // down the output to the other side. Calls `onBytes` after each write of bytes to either side.
  Relay(
      int client, int upstream, int stop, std::string_view first, RequestBody* body, GateQuestion question,
      std::function<void()> onBytes = [] {});

  // Works on the calling thread until the connection ends.
  Outcome run();

 private:
  struct Direction {
    int from;
    int to;
    size_t capacity;
    std::unique_ptr<uint8_t[]> buffer;
    size_t begin = 0;
    size_t end = 0;
    bool sourceEnded = false;  // nothing more will be read
    bool broken = false;       // the source was reset, or its body is malformed or cut off
    bool finished = false;     // everything was written, or the target reads no more

    Direction(int from, int to, std::string_view first);
    bool mayRead() const { return !sourceEnded && !finished && end < capacity; }
    std::span<const uint8_t> pending() const { return {buffer.get() + begin, end - begin}; }
    size_t read();
    bool write();
  };

  void ask(bool silent);
  void readOutbound(short events);
  void readInbound(short events);
  void finishEmpty(Direction& direction, bool passOn);
  bool isOver() const;
  Wait wait();

  int stop_;
  RequestBody* body_;
  GateQuestion question_;
  std::function<void()> onBytes_;
  Direction outbound_;
  Direction inbound_;
  Gate gate_ = Gate::Held;
  bool endAsked_ = false;
  Deadline silenceEnd_;
};

}  // namespace orvane

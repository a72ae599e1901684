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

// As many bytes as one direction of a relayed connection keeps, beside what the kernel does.
inline constexpr size_t kRelayBufferSize = 65536;

// Whether outbound bytes may leave.
enum class Gate { Open, Held, Dropped };

// Asked with the bytes held so far, whether the outbound side has ended, and whether the client has kept silent for a
// while. Once open, it is asked again only when the outbound side ends.
using GateQuestion = std::function<Gate(std::span<const uint8_t> held, bool ended, bool silent)>;

// Carries bytes between a client and its upstream, both ways at once, each way through a bounded buffer: a side that
// does not read stops the other from being read. Inbound bytes pass while outbound ones are held, as some servers speak
// first.
//
// Not thread-safe: it works on the calling thread and returns when the connection is over.
class Relay {
 public:
  enum class Outcome {
    Ended,    // both sides have had everything
    Dropped,  // by the gate
    Broken,   // one side broke off or a body was malformed: the other must not take it for an end
    Stopped,
  };

  // Sockets are borrowed and non-blocking. `first` are outbound bytes that have been read already. With a body, this is
  // one exchange of a request whose remaining bytes it frames: nothing after it is passed on, and the response's end is
  // the end. Without, it is a tunnel, and each side's end is passed on to the other.
  Relay(int client, int upstream, int stop, std::string_view first, RequestBody* body, GateQuestion question);

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
    bool broken = false;       // the source was cut off
    bool finished = false;     // everything is written, or nobody takes it any more

    Direction(int from, int to, std::string_view first);
    bool mayRead() const { return !sourceEnded && !finished && end < capacity; }
    std::span<const uint8_t> pending() const { return {buffer.get() + begin, end - begin}; }
    size_t read();
    void write();
  };

  void ask(bool silent);
  void readOutbound(short events);
  void readInbound(short events);
  void finishEmpty(Direction& direction, bool passOn);
  bool over() const;
  Wait wait();

  int stop_;
  RequestBody* body_;
  GateQuestion question_;
  Direction outbound_;
  Direction inbound_;
  Gate gate_ = Gate::Held;
  bool endAsked_ = false;
  Deadline silence_;
};

}  // namespace orvane

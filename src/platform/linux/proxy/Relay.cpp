#include "platform/linux/proxy/Relay.h"

#include <algorithm>
#include <cerrno>

namespace orvane {
namespace {

using namespace std::chrono_literals;

// If the client sends nothing for this time, the relay asks again about the held bytes, with `silent` set: the client
// probably waits for its server, and the server may wait for the held bytes.
constexpr auto kSilence = 3s;

bool try_again() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

Relay::Direction::Direction(int fromSocket, int toSocket, std::string_view first)
    : from(fromSocket),
      to(toSocket),
      capacity(std::max(kRelayBufferSize, first.size())),
      buffer(new uint8_t[capacity]),
      end(first.size()) {
  std::copy(first.begin(), first.end(), buffer.get());
}

// Reads what has arrived and fits into the buffer. Returns the number of bytes.
size_t Relay::Direction::read() {
  ssize_t count = recv(from, buffer.get() + end, capacity - end, 0);
  if (count > 0) {
    end += static_cast<size_t>(count);
    return static_cast<size_t>(count);
  }
  if (count < 0 && try_again()) return 0;
  sourceEnded = true;
  broken = count < 0;
  return 0;
}

// Writes as many bytes as the target accepts, and returns whether it accepted any. If the target reads no more, only
// this direction is finished, because the target may still send.
bool Relay::Direction::write() {
  ssize_t count = send(to, buffer.get() + begin, end - begin, MSG_NOSIGNAL);
  if (count < 0 && !try_again()) {
    finished = true;
    return false;
  }
  if (count > 0) begin += static_cast<size_t>(count);
  if (begin == end) begin = end = 0;
  return count > 0;
}

Relay::Relay(int client, int upstream, int stop, std::string_view first, RequestBody* body, GateQuestion question,
             std::function<void()> onBytes)
    : stop_(stop),
      body_(body),
      question_(std::move(question)),
      onBytes_(std::move(onBytes)),
      outbound_(client, upstream, first),
      inbound_(upstream, client, {}) {
  outbound_.sourceEnded = body_ != nullptr && body_->ended();
}

Relay::Outcome Relay::run() {
  bool silent = false;
  for (;;) {
    ask(silent);
    if (gate_ == Gate::Dropped) return Outcome::Dropped;
    finishEmpty(outbound_, body_ == nullptr);
    finishEmpty(inbound_, true);
    if (outbound_.broken || inbound_.broken) return Outcome::Broken;
    if (isOver()) return Outcome::Ended;
    Wait waited = wait();
    if (waited == Wait::Stopped) return Outcome::Stopped;
    silent = waited == Wait::TimedOut;
  }
}

// Asks whether the held bytes may leave, unless the gate is already open. When no more outbound bytes will come, asks a
// last time, even if the gate is open.
void Relay::ask(bool silent) {
  if (endAsked_ || (gate_ == Gate::Open && !outbound_.sourceEnded)) return;
  endAsked_ = outbound_.sourceEnded;
  gate_ = question_(outbound_.pending(), outbound_.sourceEnded, silent);
}

// If the direction's source has ended without an error and the direction's buffer is empty, marks the direction as
// finished. With `passOn`, then also shuts the target's socket down for writing, so that the target sees the end, too.
void Relay::finishEmpty(Direction& direction, bool passOn) {
  if (direction.finished || !direction.sourceEnded || direction.broken || !direction.pending().empty()) return;
  direction.finished = true;
  if (passOn) shutdown(direction.to, SHUT_WR);
}

// A request is over when its response has ended; a tunnel is over when both directions have ended.
bool Relay::isOver() const { return inbound_.finished && (outbound_.finished || body_ != nullptr); }

Wait Relay::wait() {
  bool held = gate_ == Gate::Held;
  auto entry = [](const Direction& in, const Direction& out, bool mayWrite) {
    short events = 0;
    if (in.mayRead()) events |= POLLIN;
    if (mayWrite && !out.finished && !out.pending().empty()) events |= POLLOUT;
    // If a socket is shut down in both directions, each poll() of this socket returns at once, even if no events are
    // requested. So a socket is polled only if events are requested, or if bytes may still be written to it. While
    // bytes may still be written, poll() without requested events reports the socket only after a reset.
    bool ignored = events == 0 && out.finished;
    return pollfd{ignored ? -1 : in.from, events, 0};
  };
  pollfd entries[2] = {entry(outbound_, inbound_, true), entry(inbound_, outbound_, !held)};
  if (!held || outbound_.pending().empty()) silenceEnd_.reset();
  if (held && !outbound_.pending().empty() && !silenceEnd_) silenceEnd_ = deadline_after(kSilence);

  Wait waited = wait_for(entries, stop_, silenceEnd_);
  if (waited != Wait::Ready) return waited;
  if ((entries[1].revents & POLLOUT) != 0 && outbound_.write()) onBytes_();
  if ((entries[0].revents & POLLOUT) != 0 && inbound_.write()) onBytes_();
  readOutbound(entries[0].revents);
  readInbound(entries[1].revents);
  return Wait::Ready;
}

void Relay::readOutbound(short events) {
  if ((events & (POLLIN | POLLHUP | POLLERR)) == 0) return;
  if (!outbound_.mayRead()) {
    // The client has reset the connection while the buffer was full. What the client sent before the reset can still be
    // read later, but the client accepts no more bytes.
    if ((events & (POLLHUP | POLLERR)) != 0) inbound_.finished = true;
    return;
  }
  size_t start = outbound_.end;
  size_t count = outbound_.read();
  if (count > 0) silenceEnd_.reset();
  if (body_ == nullptr) return;
  outbound_.end = start + body_->take({outbound_.buffer.get() + start, count});
  if (body_->malformed() || (outbound_.sourceEnded && !body_->ended())) outbound_.broken = true;
  if (body_->ended()) outbound_.sourceEnded = true;
}

void Relay::readInbound(short events) {
  if ((events & (POLLIN | POLLHUP | POLLERR)) == 0) return;
  if (inbound_.mayRead()) {
    inbound_.read();
  } else if ((events & (POLLHUP | POLLERR)) != 0) {
    outbound_.finished = true;
  }
}

}  // namespace orvane

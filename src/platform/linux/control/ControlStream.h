#pragma once

#include <capnp/serialize-async.h>
#include <kj/function.h>

#include <array>
#include <cstdint>
#include <vector>

#include "platform/linux/control/SocketEventPort.h"

// The byte stream beneath the control channel: Cap'n Proto messages in the standard framing, over a Unix-domain socket.
namespace orvane {

// Ends the reading of a stream, with a reason for the log: throws a kj::Exception.
[[noreturn]] void refuse_message(const char* reason);

// Both ends of the channel read and write through this. System calls are what a small message costs, so few are made:
// reads fill a buffer, and small messages that are written one after the other leave together, before the thread waits
// for anything. A message's memory is only asked for once its frame has been found sound, and the system only provides
// what the peer really sends. File descriptors that a peer attaches are dropped by the system.
//
// A read ends with nothing where the peer closed the stream between two messages, and with an exception where the
// stream broke or what came is no message. A write never fails: what a peer that is gone does not take is dropped, and
// the reads tell how it went. Belongs to the thread of its event loop.
class ControlStream final : public capnp::MessageStream {
 public:
  // Called before the memory for a message of this many words is asked for; the read goes on once the promise is
  // fulfilled.
  using Admission = kj::Function<kj::Promise<void>(uint64_t words)>;
  // Called with the number of bytes that the system took.
  using Progress = kj::Function<void(size_t bytes)>;

  // The socket stays the caller's, who closes it after the stream is gone.
  ControlStream(SocketEventPort& port, int socket) : port_(port), socket_(socket) {}

  void setAdmission(Admission admission) { admission_ = kj::mv(admission); }
  void setProgress(kj::Maybe<Progress> progress) { progress_ = kj::mv(progress); }

  using capnp::MessageStream::tryReadMessage;
  using capnp::MessageStream::writeMessage;
  using capnp::MessageStream::writeMessages;
  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(kj::ArrayPtr<kj::AutoCloseFd> fdSpace,
                                                                    capnp::ReaderOptions options,
                                                                    kj::ArrayPtr<capnp::word> scratchSpace) override;
  kj::Promise<void> writeMessage(kj::ArrayPtr<const int> fds,
                                 kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override;
  kj::Promise<void> writeMessages(kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override;
  kj::Maybe<int> getSendBufferSize() override { return nullptr; }
  kj::Promise<void> end() override;

 private:
  struct Outgoing;

  size_t buffered() const { return filled_ - taken_; }
  void take(kj::byte* to, size_t bytes);
  size_t receive(kj::byte* to, size_t bytes, bool* wouldBlock);
  kj::Promise<bool> fill(size_t bytes);
  kj::Promise<void> receiveAll(kj::byte* to, size_t bytes);
  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> readBody(size_t tableBytes, capnp::ReaderOptions options);
  kj::Promise<kj::Own<capnp::MessageReader>> readWords(uint64_t words, capnp::ReaderOptions options);
  uint32_t tableEntry(size_t index) const;

  void post(const Outgoing& outgoing);
  bool flush();
  kj::Promise<void> flushAll();
  kj::Promise<void> whenFlushed();
  bool sendSome(Outgoing& outgoing);
  kj::Promise<void> send(kj::Own<Outgoing> outgoing);

  SocketEventPort& port_;
  const int socket_;
  kj::Maybe<Admission> admission_;
  kj::Maybe<Progress> progress_;

  std::array<kj::byte, 32768> buffer_;
  size_t taken_ = 0, filled_ = 0;
  bool drained_ = false;  // by the read before: nothing is there yet

  std::vector<kj::byte> outbox_;  // small messages that are not sent yet, from `flushed_` on
  size_t flushed_ = 0;
  bool isFlushing_ = false;  // until all of them are sent
  kj::Promise<void> flushing_ = nullptr;
  kj::Maybe<kj::Own<kj::PromiseFulfiller<void>>> flushedFulfiller_;
  bool unwritable_ = false;
};

}  // namespace orvane

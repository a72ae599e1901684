#pragma once

#include <capnp/serialize-async.h>
#include <kj/function.h>

#include <array>
#include <cstdint>
#include <vector>

#include "platform/linux/control/SocketEventPort.h"

// The byte stream of the control channel: Cap'n Proto messages in the standard framing, over a Unix-domain socket.
namespace orvane {

// Rejects the message that is being read: throws a kj::Exception whose description is the reason.
[[noreturn]] void refuse_message(const char* reason);

// The extension and its clients all read and write through this class. System calls dominate the cost of a small
// message, so the class makes few of them: a read fills a buffer, and consecutive small messages are sent together
// before the thread waits. A peer cannot use up memory by claiming that a message is large: the message's memory is
// allocated only after its segment table has been checked, and the kernel provides pages only for bytes that arrive. If
// the peer attaches file descriptors, the kernel closes them, because no read asks for descriptors.
//
// A read returns nothing if the peer closed the stream between two messages. It throws if the connection failed or a
// message is malformed. A write never fails: after the peer is gone, output is dropped and the reads report the end.
// Use an object only on the thread of its event loop.
class ControlStream final : public capnp::MessageStream {
 public:
  // Called before memory for an incoming message of `words` words is allocated. The read continues when the promise is
  // fulfilled.
  using Admission = kj::Function<kj::Promise<void>(uint64_t words)>;
  // Called after each successful send, with the number of bytes that it sent.
  using Progress = kj::Function<void(size_t bytes)>;

  // The caller keeps the socket and closes it after the stream is destroyed.
  ControlStream(SocketEventPort& port, int socket) : port_(port), socket_(socket) {}

  void setAdmission(Admission admission) { admission_ = kj::mv(admission); }
  void setProgress(kj::Maybe<Progress> progress) { progress_ = kj::mv(progress); }
  // The number of bytes that have arrived on the stream.
  uint64_t receivedBytes() const { return receivedBytes_; }

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
  bool drained_ = false;  // the last receive emptied the socket
  uint64_t receivedBytes_ = 0;

  std::vector<kj::byte> outbox_;  // small messages; the first `flushed_` bytes have been sent
  size_t flushed_ = 0;
  bool isFlushing_ = false;  // some of the outbox is not sent yet, and flushing_ sends it
  kj::Promise<void> flushing_ = nullptr;
  kj::Maybe<kj::Own<kj::PromiseFulfiller<void>>> flushedFulfiller_;
  bool unwritable_ = false;
};

}  // namespace orvane

#include "platform/linux/control/ControlStream.h"

#include <capnp/serialize.h>
#include <kj/exception.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "platform/linux/control/ValueMessage.h"

namespace orvane {
namespace {

// Limit on the segments of one message. Cap'n Proto's own stream readers have the same limit.
constexpr uint32_t kMaximumSegments = 512;

// The capacity of the outbox. A message that does not fit into the outbox is sent directly from the message's memory.
constexpr size_t kOutboxBytes = 32768;

// A message starts with a segment table of 32-bit little-endian numbers (capnproto.org/encoding.html, "Serialization
// over a stream"): the number of segments minus one, the size of each segment in words, and padding to a 64-bit word.
constexpr size_t segment_table_bytes(uint32_t segments) { return (segments / 2 + 1) * sizeof(capnp::word); }

uint32_t little_endian(const kj::byte* bytes) {
  return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

void append_little_endian(std::vector<kj::byte>& bytes, uint32_t number) {
  for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<kj::byte>(number >> shift));
}

// Throws an exception of type DISCONNECTED, by which Cap'n Proto recognises a lost connection.
[[noreturn]] void fail_read(int error) {
  kj::throwFatalException(kj::Exception(kj::Exception::Type::DISCONNECTED, __FILE__, __LINE__,
                                        kj::str("the connection failed: ", std::strerror(error))));
}

constexpr const char* kCutOff = "a message is cut off";

}  // namespace

void refuse_message(const char* reason) {
  kj::throwFatalException(kj::Exception(kj::Exception::Type::FAILED, __FILE__, __LINE__, kj::heapString(reason)));
}

// Bytes that are still to be sent, as a list of pieces. The pieces of a message are its segment table and its segments.
struct ControlStream::Outgoing {
  std::vector<kj::byte> segmentTable;
  std::vector<iovec> pieces;
  size_t first = 0;  // index of the first piece that is not completely sent

  void add(const void* bytes, size_t length) { pieces.push_back({const_cast<void*>(bytes), length}); }
  size_t size() const {
    size_t bytes = 0;
    for (size_t i = first; i < pieces.size(); ++i) bytes += pieces[i].iov_len;
    return bytes;
  }
  void removeSent(size_t bytes) {
    while (first < pieces.size() && bytes >= pieces[first].iov_len) bytes -= pieces[first++].iov_len;
    if (bytes == 0) return;
    pieces[first].iov_base = static_cast<char*>(pieces[first].iov_base) + bytes;
    pieces[first].iov_len -= bytes;
  }
};

void ControlStream::take(kj::byte* to, size_t bytes) {
  std::memcpy(to, buffer_.data() + taken_, bytes);
  taken_ += bytes;
}

// Receives up to `bytes` bytes and returns their number. 0 means the end of the stream, unless *wouldBlock is set.
size_t ControlStream::receive(kj::byte* to, size_t bytes, bool* wouldBlock) {
  *wouldBlock = std::exchange(drained_, false);
  if (*wouldBlock) return 0;
  flush();  // the peer may wait for our output before it sends more
  ssize_t received;
  do {
    received = recv(socket_, to, bytes, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK) fail_read(errno);
    *wouldBlock = true;
    return 0;
  }
  // A short read has usually emptied the socket, so the next call would only return EAGAIN. If the kernel has stopped
  // at a message with a file descriptor, poll(2) reports the remaining bytes at once.
  drained_ = received > 0 && static_cast<size_t>(received) < bytes;
  receivedBytes_ += static_cast<size_t>(received);
  return static_cast<size_t>(received);
}

// Reads until the buffer holds `bytes` bytes that were not taken yet. False if the stream ends first.
kj::Promise<bool> ControlStream::fill(size_t bytes) {
  if (buffered() == 0) {
    taken_ = filled_ = 0;
  } else if (taken_ + bytes > buffer_.size()) {
    std::memmove(buffer_.data(), buffer_.data() + taken_, buffered());
    filled_ -= taken_;
    taken_ = 0;
  }
  while (buffered() < bytes) {
    bool wouldBlock;
    size_t received = receive(buffer_.data() + filled_, buffer_.size() - filled_, &wouldBlock);
    if (wouldBlock) return port_.whenReadable().then([this, bytes] { return fill(bytes); });
    if (received == 0) return false;
    filled_ += received;
  }
  return true;
}

kj::Promise<void> ControlStream::receiveAll(kj::byte* to, size_t bytes) {
  while (bytes > 0) {
    bool wouldBlock;
    size_t received = receive(to, bytes, &wouldBlock);
    if (wouldBlock) return port_.whenReadable().then([this, to, bytes] { return receiveAll(to, bytes); });
    if (received == 0) refuse_message(kCutOff);
    to += received;
    bytes -= received;
  }
  return kj::READY_NOW;
}

uint32_t ControlStream::tableEntry(size_t index) const {
  return little_endian(buffer_.data() + taken_ + index * sizeof(uint32_t));
}

kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> ControlStream::tryReadMessage(kj::ArrayPtr<kj::AutoCloseFd>,
                                                                                 capnp::ReaderOptions options,
                                                                                 kj::ArrayPtr<capnp::word>) {
  return fill(sizeof(capnp::word))
      .then([this, options](bool complete) -> kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> {
        if (!complete) {
          if (buffered() > 0) refuse_message(kCutOff);
          return kj::Maybe<capnp::MessageReaderAndFds>();
        }
        uint32_t segments = tableEntry(0) + 1;
        if (segments == 0 || segments > kMaximumSegments) refuse_message("a message has too many segments");
        return readBody(segment_table_bytes(segments), options);
      });
}

// Reads the message whose first word has arrived in the buffer. `tableBytes` is the size of its segment table.
kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> ControlStream::readBody(size_t tableBytes,
                                                                           capnp::ReaderOptions options) {
  return fill(tableBytes)
      .then([this, tableBytes, options](bool complete) {
        if (!complete) refuse_message(kCutOff);
        uint64_t words = tableBytes / sizeof(capnp::word);
        for (uint32_t i = 0, segments = tableEntry(0) + 1; i < segments; ++i) words += tableEntry(1 + i);
        if (words > kMaximumMessageWords) refuse_message("a message is too large");
        KJ_IF_MAYBE (admission, admission_) {
          return (*admission)(words).then([this, words, options] { return readWords(words, options); });
        }
        return readWords(words, options);
      })
      .then([](kj::Own<capnp::MessageReader> reader) -> kj::Maybe<capnp::MessageReaderAndFds> {
        return capnp::MessageReaderAndFds{kj::mv(reader), nullptr};
      });
}

// Reads the message whose whole segment table has arrived in the buffer. `words` is the size of the message, with the
// segment table.
kj::Promise<kj::Own<capnp::MessageReader>> ControlStream::readWords(uint64_t words, capnp::ReaderOptions options) {
  auto message = kj::heapArray<capnp::word>(words);
  auto bytes = message.asBytes();
  // A small message is read through the buffer, so that one system call can also read the messages after it.
  bool small = bytes.size() <= buffer_.size();
  auto arrived = small ? fill(bytes.size()).then([this, bytes](bool complete) mutable {
    if (!complete) refuse_message(kCutOff);
    take(bytes.begin(), bytes.size());
  })
                       : kj::Promise<void>(kj::READY_NOW);
  if (!small) {
    size_t begun = buffered();
    take(bytes.begin(), begun);
    arrived = receiveAll(bytes.begin() + begun, bytes.size() - begun);
  }
  return arrived.then([message = kj::mv(message), options]() mutable -> kj::Own<capnp::MessageReader> {
    auto reader = kj::heap<capnp::FlatArrayMessageReader>(message.asPtr(), options);
    return reader.attach(kj::mv(message));
  });
}

kj::Promise<void> ControlStream::writeMessage(kj::ArrayPtr<const int> fds,
                                              kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) {
  if (unwritable_) return kj::READY_NOW;
  auto outgoing = kj::heap<Outgoing>();
  append_little_endian(outgoing->segmentTable, static_cast<uint32_t>(segments.size() - 1));
  for (auto& segment : segments) append_little_endian(outgoing->segmentTable, static_cast<uint32_t>(segment.size()));
  outgoing->segmentTable.resize(segment_table_bytes(static_cast<uint32_t>(segments.size())));
  outgoing->add(outgoing->segmentTable.data(), outgoing->segmentTable.size());
  for (auto& segment : segments) outgoing->add(segment.begin(), segment.size() * sizeof(capnp::word));

  if (outbox_.size() - flushed_ + outgoing->size() <= kOutboxBytes) {
    post(*outgoing);
    return kj::READY_NOW;
  }
  if (isFlushing_) {
    return whenFlushed().then([this, fds, segments] { return writeMessage(fds, segments); });
  }
  return send(kj::mv(outgoing));
}

void ControlStream::post(const Outgoing& outgoing) {
  for (const iovec& piece : outgoing.pieces) {
    auto* bytes = static_cast<const kj::byte*>(piece.iov_base);
    outbox_.insert(outbox_.end(), bytes, bytes + piece.iov_len);
  }
  if (isFlushing_) return;
  isFlushing_ = true;
  // evalLast runs when the event loop has nothing else to do. So the flush also sends messages that are written until
  // then.
  flushing_ = kj::evalLast([this] { return flushAll(); })
                  .then([this] {
                    isFlushing_ = false;
                    KJ_IF_MAYBE (fulfiller, flushedFulfiller_) (*fulfiller)->fulfill();
                  })
                  .eagerlyEvaluate(nullptr);
}

kj::Promise<void> ControlStream::flushAll() {
  if (flush()) return kj::READY_NOW;
  return port_.whenWritable().then([this] { return flushAll(); });
}

kj::Promise<void> ControlStream::whenFlushed() {
  auto flushed = kj::newPromiseAndFulfiller<void>();
  flushedFulfiller_ = kj::mv(flushed.fulfiller);
  return kj::mv(flushed.promise);
}

// Sends as much of the outbox as the socket accepts without waiting. True when the outbox is empty.
bool ControlStream::flush() {
  if (flushed_ < outbox_.size()) {
    Outgoing outgoing;
    outgoing.add(outbox_.data() + flushed_, outbox_.size() - flushed_);
    if (!sendSome(outgoing)) {
      flushed_ = outbox_.size() - outgoing.size();
      return false;
    }
  }
  outbox_.clear();
  flushed_ = 0;
  return true;
}

// Sends as many bytes of `outgoing` as the socket accepts without waiting. True when nothing is left to send.
bool ControlStream::sendSome(Outgoing& outgoing) {
  while (outgoing.first < outgoing.pieces.size()) {
    msghdr header{};
    header.msg_iov = outgoing.pieces.data() + outgoing.first;
    header.msg_iovlen = std::min<size_t>(outgoing.pieces.size() - outgoing.first, IOV_MAX);
    ssize_t sent = sendmsg(socket_, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
    unwritable_ = sent < 0;
    if (unwritable_) return true;
    outgoing.removeSent(static_cast<size_t>(sent));
    KJ_IF_MAYBE (progress, progress_) (*progress)(static_cast<size_t>(sent));
  }
  return true;
}

kj::Promise<void> ControlStream::send(kj::Own<Outgoing> outgoing) {
  if (sendSome(*outgoing)) return kj::READY_NOW;
  return port_.whenWritable().then([this, outgoing = kj::mv(outgoing)]() mutable { return send(kj::mv(outgoing)); });
}

kj::Promise<void> ControlStream::writeMessages(
    kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) {
  if (messages.size() == 0) return kj::READY_NOW;
  return writeMessage(nullptr, messages.front()).then([this, messages]() mutable {
    return writeMessages(kj::arrayPtr(messages.begin() + 1, messages.end()));
  });
}

kj::Promise<void> ControlStream::end() {
  if (isFlushing_) return whenFlushed().then([this] { return end(); });
  shutdown(socket_, SHUT_WR);  // fails if the peer is gone already
  return kj::READY_NOW;
}

}  // namespace orvane

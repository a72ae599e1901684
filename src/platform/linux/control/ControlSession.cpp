#include "platform/linux/control/ControlSession.h"

#include <capnp/rpc-twoparty.h>
#include <capnp/rpc.capnp.h>
#include <kj/exception.h>
#include <malloc.h>

#include <atomic>
#include <string_view>

#include "platform/Log.h"
#include "platform/StringBlocks.h"
#include "platform/linux/base/ListEdits.h"
#include "platform/linux/control/ControlStream.h"
#include "platform/linux/control/MemoryBudget.h"
#include "platform/linux/control/SocketPath.h"
#include "platform/linux/control/ValueMessage.h"

namespace orvane {
namespace {

namespace rpc = capnp::rpc;

// Limit on the calls for which a client has not sent the "finish" message yet. The RPC system keeps a table entry for
// each of these calls.
constexpr unsigned kMaximumUnfinishedCalls = 1024;
// Limit on the bytes of replies that wait because the client does not read them. Above the limit the session reads no
// messages.
constexpr size_t kMaximumUnsentBytes = 64 << 10;
// Large messages, and the values that the extension makes from them, share two budgets of memory. Small messages need
// no budget, because a session has one message at a time and the number of sessions is limited. So a small call works
// even while the large calls of other clients use up the budgets.
constexpr uint64_t kLargeMessageWords = (256 << 10) / sizeof(capnp::word);
// Other clients may wait for the memory of a large message, so one part in kArrivalParts of the message must arrive in
// each kArrivalInterval, and the whole message in 60 s.
constexpr auto kArrivalInterval = 5 * kj::SECONDS;
constexpr uint64_t kArrivalParts = 12;
constexpr auto kShareInterval = 10 * kj::MILLISECONDS;  // between two attempts to take memory from a budget

// The limits for one message. The traversal limit is larger than the largest message, because Cap'n Proto counts some
// words twice as it reads. Each container in a value uses three levels of the nesting limit, and the call that contains
// the value uses a few more.
constexpr capnp::ReaderOptions kReaderOptions{kMaximumMessageWords + (1 << 20), 3 * kMaximumNesting + 16};

// The budgets are never destroyed, because sessions may still use them while the process exits.
MemoryBudget& message_budget() {
  // One user has at most half of the memory. So a user whose messages arrive slowly leaves room for another user.
  constexpr uint64_t kLimitOfUser = kMaximumMessageWords * sizeof(capnp::word);
  static auto& budget = *new MemoryBudget(2 * kLimitOfUser, kLimitOfUser);
  return budget;
}

// The limit on the memory for values is 512 MiB: once for the values that the extension stores, and once for the
// arguments of large calls that are being carried out. A value takes up to about kValueBytesPerByte bytes of memory for
// each byte of its message.
constexpr uint64_t kValueBytesPerByte = 4;
constexpr uint64_t value_bytes(uint64_t messageWords) {
  return messageWords * sizeof(capnp::word) * kValueBytesPerByte;
}
constexpr uint64_t kValueLimit = value_bytes(kMaximumCallWords);

MemoryBudget& value_budget() {
  static auto& budget = *new MemoryBudget(kValueLimit, kValueLimit);
  return budget;
}

enum class Stores { Nothing, Value };

// Refuses a call that would need too much memory for values, by an exception. Keep the object while the call is carried
// out. Thread-safe.
class ValueLimit {
 public:
  // Stores::Value is for a call that adds to the stored values. Such a call counts together with these values.
  // Value::bytesInUse() counts the arguments of other calls, too: those of a call that replaces the list may be stored
  // already. Stores::Nothing is for a call that removes a value, replaces all values or stores nothing, so that the
  // call works even if the stored values use up the memory.
  ValueLimit(uint64_t messageWords, Stores stores) : bytes_(stores == Stores::Value ? value_bytes(messageWords) : 0) {
    if (messageWords > kMaximumCallWords) refuse_message("its message is larger than the limit for a call, 128 MiB");
    const uint64_t storing = storing_ += bytes_;
    if (bytes_ == 0 || storing + Value::bytesInUse() <= kValueLimit) return;
    storing_ -= bytes_;
    refuse_message(
        "it would need more memory for values than the limit, 512 MiB; try again, or remove names or properties first");
  }
  ~ValueLimit() { storing_ -= bytes_; }
  KJ_DISALLOW_COPY(ValueLimit);

 private:
  static inline std::atomic<uint64_t> storing_{0};  // for the arguments of calls that add to the stored values
  const uint64_t bytes_;
};

// A ControlStream that enforces the limits of a session. Cap'n Proto's read loop asks for one message at a time and
// gets the next one only after the previous call has been carried out.
class GuardedStream final : public capnp::MessageStream {
 public:
  GuardedStream(SocketEventPort& port, int socket, SessionActivity& activity)
      : activity_(activity),
        port_(port),
        stream_(port, socket),
        ended_(kj::newPromiseAndFulfiller<SessionEnd>()),
        messageShare_(message_budget(), peer_of(socket).uid),
        valueShare_(value_budget(), peer_of(socket).uid) {
    stream_.setAdmission([this](uint64_t words) { return reserve(words); });
  }
  KJ_DISALLOW_COPY(GuardedStream);

  // Sets the network, whose queue of unsent replies must be short before the next message is read. Call this before the
  // first read.
  void setNetwork(capnp::TwoPartyVatNetwork& network) { network_ = &network; }

  // The promise is fulfilled when the session ends. Call this once.
  kj::Promise<SessionEnd> ended() { return kj::mv(ended_.promise); }

  // Ends the session as broken and logs the reason. Later calls do nothing.
  void giveUp(std::string_view reason) {
    if (ended_.fulfiller->isWaiting()) ORVANE_LOG_INFO(default_log(), "gave up a control connection: %@", reason);
    ended_.fulfiller->fulfill(SessionEnd::Broken);
  }

  // Whether the message that was read last is large.
  bool isMessageLarge() const { return messageWords_ > kLargeMessageWords; }
  // The size of the message that was read last.
  uint64_t messageWords() const { return messageWords_; }

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(kj::ArrayPtr<kj::AutoCloseFd> fdSpace,
                                                                    capnp::ReaderOptions options,
                                                                    kj::ArrayPtr<capnp::word> scratchSpace) override {
    return whenReadyForNextMessage().then([this, fdSpace, options, scratchSpace] {
      return kj::evalNow([&] { return stream_.tryReadMessage(fdSpace, options, scratchSpace); })
          .then([this](kj::Maybe<capnp::MessageReaderAndFds>&& message) { return admit(kj::mv(message)); })
          .then([this](kj::Maybe<capnp::MessageReaderAndFds>&& message) {
            return whenValuesFit(message).then([message = kj::mv(message)]() mutable { return kj::mv(message); });
          })
          .catch_([this](kj::Exception&& exception) {
            giveUp({exception.getDescription().begin(), exception.getDescription().size()});
            return kj::Maybe<capnp::MessageReaderAndFds>();
          });
    });
  }

  kj::Promise<void> writeMessage(kj::ArrayPtr<const int> fds,
                                 kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override {
    return stream_.writeMessage(fds, segments).then([this] { resumeReading(); });
  }
  // Cap'n Proto 0.9 writes one message at a time, and later versions write all that wait.
  kj::Promise<void> writeMessages(kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override {
    return stream_.writeMessages(messages).then([this] { resumeReading(); });
  }
  kj::Maybe<int> getSendBufferSize() override { return nullptr; }
  kj::Promise<void> end() override { return stream_.end(); }

 private:
  void resumeReading() {
    KJ_IF_MAYBE (resume, resumeReading_) (*resume)->fulfill();
  }

  // The promise is fulfilled when the previous call has been carried out and at most kMaximumUnsentBytes of replies
  // wait to be sent.
  kj::Promise<void> whenReadyForNextMessage() {
    // evalLast runs when the event loop has nothing else to do, so the previous call is complete by then.
    return kj::evalLast([this]() -> kj::Promise<void> {
      activity_.endCall();
      // Before the wait for the client, because a client that reads no replies must not keep memory of the budgets.
      releaseShares();
      if (network_->getCurrentQueueSize() <= kMaximumUnsentBytes) return kj::READY_NOW;
      auto written = kj::newPromiseAndFulfiller<void>();
      resumeReading_ = kj::mv(written.fulfiller);
      return written.promise.then([this] { return whenReadyForNextMessage(); });
    });
  }

  kj::Promise<void> whenTaken(MemoryBudget::Share& share, uint64_t bytes) {
    if (share.take(bytes)) return kj::READY_NOW;
    // A session keeps a client's place until it ends. So it ends if the connection has ended, unless it has read the
    // whole message: the call of such a message is carried out.
    if (&share == &messageShare_ && port_.isHungUp()) refuse_message("it ended while a message waited for memory");
    return port_.afterDelay(kShareInterval).then([this, &share, bytes] { return whenTaken(share, bytes); });
  }

  kj::Promise<void> reserve(uint64_t words) {
    messageWords_ = words;
    if (!isMessageLarge()) return kj::READY_NOW;
    return whenTaken(messageShare_, words * sizeof(capnp::word)).then([this] {
      activity_.beginCall();  // a client whose large message is arriving is not idle
      arrival_ = limitArrival().eagerlyEvaluate(nullptr);
    });
  }

  // Ends the session if a large message arrives too slowly. Destroy the promise when the message has arrived.
  kj::Promise<void> limitArrival() {
    return port_.afterDelay(kArrivalInterval).then([this, before = stream_.receivedBytes()]() -> kj::Promise<void> {
      const uint64_t arrived = stream_.receivedBytes() - before;
      if (arrived >= messageWords_ * sizeof(capnp::word) / kArrivalParts) return limitArrival();
      giveUp("a large message arrived too slowly");
      return kj::READY_NOW;
    });
  }

  // The promise is fulfilled when there is memory for the values of the message, which was read last. A call that can
  // never have this memory does not wait: it will be refused.
  kj::Promise<void> whenValuesFit(const kj::Maybe<capnp::MessageReaderAndFds>& message) {
    if (message == nullptr || !isMessageLarge() || messageWords_ > kMaximumCallWords) return kj::READY_NOW;
    return whenTaken(valueShare_, value_bytes(messageWords_));
  }

  void releaseShares() {
    valueShare_.release();
    // A large message, and the values that it replaced, leave free memory, which the allocator would keep.
    if (messageShare_.release()) malloc_trim(0);
  }

  kj::Maybe<capnp::MessageReaderAndFds> admit(kj::Maybe<capnp::MessageReaderAndFds>&& received) {
    arrival_ = nullptr;
    KJ_IF_MAYBE (message, received) {
      activity_.beginCall();
      auto content = message->reader->getRoot<rpc::Message>();
      if (content.isAbort()) {  // Cap'n Proto sends "abort" at every orderly close
        ended_.fulfiller->fulfill(SessionEnd::Closed);
        return nullptr;
      }
      if (!isExpected(content)) refuse_message("the client sent a message that this protocol does not use");
      return kj::mv(received);
    }
    ended_.fulfiller->fulfill(SessionEnd::Closed);
    return nullptr;
  }

  // Accepts only the RPC messages that calls without capabilities need, and counts the unfinished calls.
  bool isExpected(rpc::Message::Reader message) {
    switch (message.which()) {
      case rpc::Message::BOOTSTRAP:
        return ++unfinishedCalls_ <= kMaximumUnfinishedCalls;
      case rpc::Message::CALL:
        return isPlain(message.getCall()) && ++unfinishedCalls_ <= kMaximumUnfinishedCalls;
      case rpc::Message::FINISH:
        return unfinishedCalls_-- > 0;
      case rpc::Message::RELEASE:
        return true;
      default:
        return false;
    }
  }

  // True for a call that passes no capabilities, whose target has a transform of at most one step, and whose results go
  // to the caller. Other calls are refused, because capabilities and transforms are lists, and Cap'n Proto allocates as
  // many entries as the message claims.
  static bool isPlain(rpc::Call::Reader call) {
    auto target = call.getTarget();
    bool direct = !target.isPromisedAnswer() || target.getPromisedAnswer().getTransform().size() <= 1;
    return direct && call.getSendResultsTo().isCaller() && call.getParams().getCapTable().size() == 0;
  }

  SessionActivity& activity_;
  SocketEventPort& port_;
  ControlStream stream_;
  kj::PromiseFulfillerPair<SessionEnd> ended_;
  capnp::TwoPartyVatNetwork* network_ = nullptr;
  kj::Maybe<kj::Own<kj::PromiseFulfiller<void>>> resumeReading_;
  kj::Maybe<kj::Promise<void>> arrival_;
  uint64_t messageWords_ = 0;
  MemoryBudget::Share messageShare_, valueShare_;
  unsigned unfinishedCalls_ = 0;
};

void report_edit_of(const Value& name) {
  if (name.isString()) ListEdits::shared().add(std::string(name.asString()));
}

void report_edit_of_all(const Value&) { ListEdits::shared().addAll(); }

// Passes the client's calls to the exported object, and the object's replies to the client. Reports edits to ListEdits.
class ControlServer final : public control::OrvaneSECommunication::Server {
 public:
  ControlServer(OrvaneSECommunication* exported, GuardedStream& stream) : exported_(exported), stream_(stream) {}

  kj::Promise<void> ping(PingContext context) override {
    exported().pingWithReply([&](bool reply) { context.getResults(kReplySize).setReply(reply); });
    return kj::READY_NOW;
  }
  kj::Promise<void> getAppFilterState(GetAppFilterStateContext context) override {
    exported().getAppFilterStateWithReply([&](bool reply) { context.getResults(kReplySize).setReply(reply); });
    return kj::READY_NOW;
  }
  kj::Promise<void> start(StartContext) override {
    exported().start();
    return kj::READY_NOW;
  }
  kj::Promise<void> stop(StopContext) override {
    exported().stop();
    return kj::READY_NOW;
  }
  kj::Promise<void> addApplicationIdentifier(AddApplicationIdentifierContext context) override {
    return deliver(
        context, [](auto call) { return call.getIdentifier(); }, &OrvaneSECommunication::addApplicationIdentifier,
        report_edit_of_all);
  }
  kj::Promise<void> removeApplicationIdentifier(RemoveApplicationIdentifierContext context) override {
    return deliver(
        context, [](auto call) { return call.getIdentifier(); }, &OrvaneSECommunication::removeApplicationIdentifier,
        report_edit_of_all);
  }
  kj::Promise<void> setApplicationIdentifiers(SetApplicationIdentifiersContext context) override {
    return deliver(
        context, [](auto call) { return call.getIdentifiers(); }, &OrvaneSECommunication::setApplicationIdentifiers,
        report_edit_of_all);
  }
  kj::Promise<void> addHostname(AddHostnameContext context) override {
    return deliver(
        context, [](auto call) { return call.getHostname(); }, &OrvaneSECommunication::addHostname, report_edit_of,
        Stores::Value);
  }
  kj::Promise<void> removeHostname(RemoveHostnameContext context) override {
    return deliver(
        context, [](auto call) { return call.getHostname(); }, &OrvaneSECommunication::removeHostname, report_edit_of);
  }
  kj::Promise<void> setHostnames(SetHostnamesContext context) override {
    return deliver(
        context, [](auto call) { return call.getHostnames(); }, &OrvaneSECommunication::setHostnames,
        report_edit_of_all);
  }
  kj::Promise<void> setProperties(SetPropertiesContext context) override {
    ValueLimit limit(stream_.messageWords(), Stores::Value);
    Value properties = argument(context, [](auto call) { return call.getProperties(); });
    Value forHostname = argument(context, [](auto call) { return call.getForHostname(); });
    context.releaseParams();
    exported().setProperties(properties, forHostname);
    report_edit_of(forHostname);
    return kj::READY_NOW;
  }
  kj::Promise<void> getChangesCount(GetChangesCountContext context) override {
    exported().getChangesCount([&](uint64_t reply) { context.getResults(kReplySize).setReply(reply); });
    return kj::READY_NOW;
  }

 private:
  // A hint for the size of a reply: without it, Cap'n Proto allocates several kilobytes for each reply.
  static constexpr capnp::MessageSize kReplySize{4, 0};
  static constexpr const char* kBadArgument = "an argument is malformed or too large";

  OrvaneSECommunication& exported() {
    if (exported_ == nullptr) refuse_message("nothing is exported on this connection");
    return *exported_;
  }

  // Converts one argument of a call. A bad argument ends the session, and the call is not delivered.
  template <class Context, class Get>
  Value argument(Context& context, Get get) {
    std::optional<Value> value;
    std::optional<StringBlocks> blocks;
    if (stream_.isMessageLarge()) blocks.emplace();
    auto malformed =
        kj::runCatchingExceptions([&] { value = read_value(get(context.getParams()), stream_.messageWords()); });
    if (malformed != nullptr || !value) {
      stream_.giveUp(kBadArgument);
      refuse_message(kBadArgument);
    }
    return *std::move(value);
  }

  // Passes a call with one argument to the exported object, then passes the argument to `report`.
  template <class Context, class Get>
  kj::Promise<void> deliver(Context& context, Get get, void (OrvaneSECommunication::*message)(const Value&),
                            void (*report)(const Value&), Stores stores = Stores::Nothing) {
    ValueLimit limit(stream_.messageWords(), stores);
    Value value = argument(context, get);
    context.releaseParams();
    (exported().*message)(value);
    report(value);
    return kj::READY_NOW;
  }

  OrvaneSECommunication* exported_;
  GuardedStream& stream_;
};

SessionEnd serve(int socket, OrvaneSECommunication* exported, SessionActivity& activity) {
  SocketEventPort port(socket);
  kj::EventLoop loop(port);
  kj::WaitScope scope(loop);
  GuardedStream stream(port, socket, activity);
  capnp::TwoPartyVatNetwork network(stream, rpc::twoparty::Side::SERVER, kReaderOptions);
  stream.setNetwork(network);
  auto system = capnp::makeRpcServer(network, kj::heap<ControlServer>(exported, stream));
  // Cap'n Proto disconnects when a message violates the RPC protocol.
  auto disconnected = network.onDisconnect().then([&stream] {
    stream.giveUp("a message violated the RPC protocol");
    return SessionEnd::Broken;
  });
  return stream.ended().exclusiveJoin(kj::mv(disconnected)).wait(scope);
}

}  // namespace

SessionEnd serve_session(int socket, OrvaneSECommunication* exported, SessionActivity& activity) {
  SessionEnd end = SessionEnd::Broken;
  auto failure = kj::runCatchingExceptions([&] { end = serve(socket, exported, activity); });
  KJ_IF_MAYBE (exception, failure) {
    ORVANE_LOG_ERROR(default_log(), "a control connection failed: %s", exception->getDescription().cStr());
  }
  return end;
}

}  // namespace orvane

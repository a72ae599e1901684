#include "platform/linux/control/ControlSession.h"

#include <capnp/rpc-twoparty.h>
#include <capnp/rpc.capnp.h>
#include <kj/exception.h>

#include <atomic>
#include <string_view>

#include "platform/Log.h"
#include "platform/linux/control/ControlStream.h"
#include "platform/linux/control/ValueMessage.h"

namespace orvane {
namespace {

namespace rpc = capnp::rpc;

// Calls that a client may have begun without having sent their "finish". Each is an entry in a table of ours.
constexpr unsigned kMaximumUnfinishedCalls = 1024;
// Replies that wait for the client to read. Beyond that nothing more is read from it.
constexpr size_t kMaximumUnsentBytes = 64 << 10;
// Messages of more words share a bounded amount of memory, and have to arrive in time because others may wait for it.
constexpr uint64_t kLargeMessageWords = (1 << 20) / sizeof(capnp::word);
constexpr uint64_t kLargeMessagesWords = 2 * kMaximumMessageWords;
constexpr auto kLargeMessageTime = 60 * kj::SECONDS;
constexpr auto kReservationInterval = 10 * kj::MILLISECONDS;

// Reading counts some words twice, so the limit stands a little above the largest message. The deepest value takes
// three pointers for each container, below a handful for the call around it.
constexpr capnp::ReaderOptions kReaderOptions{kMaximumMessageWords + (1 << 20), 3 * kMaximumNesting + 16};

// The large messages of all sessions.
class LargeMessages {
 public:
  bool reserve(uint64_t words) {
    uint64_t taken = words_.load();
    do {
      if (taken + words > kLargeMessagesWords) return false;
    } while (!words_.compare_exchange_weak(taken, taken + words));
    return true;
  }
  void release(uint64_t words) { words_ -= words; }

 private:
  std::atomic<uint64_t> words_{0};
};
LargeMessages large_messages;

// The client's stream with the guards of a session around it. The library's reading loop asks for one message at a
// time; it gets the next only when the one before has been carried out.
class GuardedStream final : public capnp::MessageStream {
 public:
  GuardedStream(SocketEventPort& port, int socket)
      : timer_(port.timer()), stream_(port, socket), ended_(kj::newPromiseAndFulfiller<SessionEnd>()) {
    stream_.setAdmission([this](uint64_t words) { return reserve(words); });
  }
  ~GuardedStream() noexcept(false) { large_messages.release(reserved_); }
  KJ_DISALLOW_COPY(GuardedStream);

  // The replies that are watched. To be called before anything is read.
  void setNetwork(capnp::TwoPartyVatNetwork& network) { network_ = &network; }

  kj::Promise<SessionEnd> ended() { return kj::mv(ended_.promise); }

  // Ends the session as broken.
  void giveUp(std::string_view reason) {
    if (ended_.fulfiller->isWaiting()) ORVANE_LOG_INFO(default_log(), "gave up a control connection: %@", reason);
    ended_.fulfiller->fulfill(SessionEnd::Broken);
  }

  // The size of the message that is being carried out.
  uint64_t messageWords() const { return messageWords_; }

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(kj::ArrayPtr<kj::AutoCloseFd> fdSpace,
                                                                    capnp::ReaderOptions options,
                                                                    kj::ArrayPtr<capnp::word> scratchSpace) override {
    return whenRepliesAreTaken().then([this, fdSpace, options, scratchSpace] {
      releaseReservation();
      return kj::evalNow([&] { return stream_.tryReadMessage(fdSpace, options, scratchSpace); })
          .then([this](kj::Maybe<capnp::MessageReaderAndFds>&& message) { return admit(kj::mv(message)); })
          .catch_([this](kj::Exception&& exception) {
            giveUp({exception.getDescription().begin(), exception.getDescription().size()});
            return kj::Maybe<capnp::MessageReaderAndFds>();
          });
    });
  }

  kj::Promise<void> writeMessage(kj::ArrayPtr<const int> fds,
                                 kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override {
    return stream_.writeMessage(fds, segments).then([this] {
      KJ_IF_MAYBE (resume, resumeReading_) (*resume)->fulfill();
    });
  }
  kj::Promise<void> writeMessages(kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override {
    return stream_.writeMessages(messages);
  }
  kj::Maybe<int> getSendBufferSize() override { return nullptr; }
  kj::Promise<void> end() override { return stream_.end(); }

 private:
  // Once everything that is under way in this thread has come to rest, the last call among it, and few replies wait.
  kj::Promise<void> whenRepliesAreTaken() {
    return kj::evalLast([this]() -> kj::Promise<void> {
      if (network_->getCurrentQueueSize() <= kMaximumUnsentBytes) return kj::READY_NOW;
      auto written = kj::newPromiseAndFulfiller<void>();
      resumeReading_ = kj::mv(written.fulfiller);
      return written.promise.then([this] { return whenRepliesAreTaken(); });
    });
  }

  kj::Promise<void> reserve(uint64_t words) {
    messageWords_ = words;
    if (words <= kLargeMessageWords) return kj::READY_NOW;
    if (!large_messages.reserve(words)) {
      return timer_.afterDelay(kReservationInterval).then([this, words] { return reserve(words); });
    }
    reserved_ = words;
    deadline_ = timer_.afterDelay(kLargeMessageTime)
                    .then([this] { giveUp("a large message did not arrive in time"); })
                    .eagerlyEvaluate(nullptr);
    return kj::READY_NOW;
  }

  void releaseReservation() {
    large_messages.release(reserved_);
    reserved_ = 0;
  }

  kj::Maybe<capnp::MessageReaderAndFds> admit(kj::Maybe<capnp::MessageReaderAndFds>&& received) {
    deadline_ = nullptr;
    KJ_IF_MAYBE (message, received) {
      auto content = message->reader->getRoot<rpc::Message>();
      if (content.isAbort()) {  // what the library says at every end that is not abrupt
        ended_.fulfiller->fulfill(SessionEnd::Closed);
        return nullptr;
      }
      if (!isExpected(content)) refuse_message("a message came that no client has cause to send");
      return kj::mv(received);
    }
    ended_.fulfiller->fulfill(SessionEnd::Closed);
    return nullptr;
  }

  // Of the messages of the RPC protocol, those that calls of plain values take.
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

  // Capabilities in a call, and the steps to one, are lists that the library would convert at their claimed length.
  static bool isPlain(rpc::Call::Reader call) {
    auto target = call.getTarget();
    bool direct = !target.isPromisedAnswer() || target.getPromisedAnswer().getTransform().size() <= 1;
    return direct && call.getSendResultsTo().isCaller() && call.getParams().getCapTable().size() == 0;
  }

  kj::Timer& timer_;
  ControlStream stream_;
  kj::PromiseFulfillerPair<SessionEnd> ended_;
  capnp::TwoPartyVatNetwork* network_ = nullptr;
  kj::Maybe<kj::Own<kj::PromiseFulfiller<void>>> resumeReading_;
  kj::Maybe<kj::Promise<void>> deadline_;
  uint64_t messageWords_ = 0, reserved_ = 0;
  unsigned unfinishedCalls_ = 0;
};

// Hands the client's calls to the exported object, and its replies to the client.
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
        context, [](auto call) { return call.getIdentifier(); }, &OrvaneSECommunication::addApplicationIdentifier);
  }
  kj::Promise<void> removeApplicationIdentifier(RemoveApplicationIdentifierContext context) override {
    return deliver(
        context, [](auto call) { return call.getIdentifier(); }, &OrvaneSECommunication::removeApplicationIdentifier);
  }
  kj::Promise<void> setApplicationIdentifiers(SetApplicationIdentifiersContext context) override {
    return deliver(
        context, [](auto call) { return call.getIdentifiers(); }, &OrvaneSECommunication::setApplicationIdentifiers);
  }
  kj::Promise<void> addHostname(AddHostnameContext context) override {
    return deliver(
        context, [](auto call) { return call.getHostname(); }, &OrvaneSECommunication::addHostname);
  }
  kj::Promise<void> removeHostname(RemoveHostnameContext context) override {
    return deliver(
        context, [](auto call) { return call.getHostname(); }, &OrvaneSECommunication::removeHostname);
  }
  kj::Promise<void> setHostnames(SetHostnamesContext context) override {
    return deliver(
        context, [](auto call) { return call.getHostnames(); }, &OrvaneSECommunication::setHostnames);
  }
  kj::Promise<void> setProperties(SetPropertiesContext context) override {
    Value properties = argument(context, [](auto call) { return call.getProperties(); });
    Value forHostname = argument(context, [](auto call) { return call.getForHostname(); });
    context.releaseParams();
    exported().setProperties(properties, forHostname);
    return kj::READY_NOW;
  }
  kj::Promise<void> getChangesCount(GetChangesCountContext context) override {
    exported().getChangesCount([&](uint64_t reply) { context.getResults(kReplySize).setReply(reply); });
    return kj::READY_NOW;
  }

 private:
  // So that a reply does not take the several kilobytes of a message of unknown size.
  static constexpr capnp::MessageSize kReplySize{4, 0};
  static constexpr const char* kUnsoundArgument = "an argument is malformed or too large";

  OrvaneSECommunication& exported() {
    if (exported_ == nullptr) refuse_message("nothing is exported on this connection");
    return *exported_;
  }

  // One argument of a call. What cannot be converted is never delivered: it ends the session.
  template <class Context, class Get>
  Value argument(Context& context, Get get) {
    std::optional<Value> value;
    auto malformed =
        kj::runCatchingExceptions([&] { value = read_value(get(context.getParams()), stream_.messageWords()); });
    if (malformed != nullptr || !value) {
      stream_.giveUp(kUnsoundArgument);
      refuse_message(kUnsoundArgument);
    }
    return *std::move(value);
  }

  template <class Context, class Get>
  kj::Promise<void> deliver(Context& context, Get get, void (OrvaneSECommunication::*message)(const Value&)) {
    Value value = argument(context, get);
    context.releaseParams();
    (exported().*message)(value);
    return kj::READY_NOW;
  }

  OrvaneSECommunication* exported_;
  GuardedStream& stream_;
};

SessionEnd serve(int socket, OrvaneSECommunication* exported) {
  SocketEventPort port(socket);
  kj::EventLoop loop(port);
  kj::WaitScope scope(loop);
  GuardedStream stream(port, socket);
  capnp::TwoPartyVatNetwork network(stream, rpc::twoparty::Side::SERVER, kReaderOptions);
  stream.setNetwork(network);
  auto system = capnp::makeRpcServer(network, kj::heap<ControlServer>(exported, stream));
  // The library disconnects by itself when a message breaks the rules of its protocol.
  auto disconnected = network.onDisconnect().then([&stream] {
    stream.giveUp("the protocol was broken");
    return SessionEnd::Broken;
  });
  return stream.ended().exclusiveJoin(kj::mv(disconnected)).wait(scope);
}

}  // namespace

SessionEnd serve_session(int socket, OrvaneSECommunication* exported) {
  SessionEnd end = SessionEnd::Broken;
  auto failure = kj::runCatchingExceptions([&] { end = serve(socket, exported); });
  KJ_IF_MAYBE (exception, failure) {
    ORVANE_LOG_ERROR(default_log(), "a control connection failed: %s", exception->getDescription().cStr());
  }
  return end;
}

}  // namespace orvane

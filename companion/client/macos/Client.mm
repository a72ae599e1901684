#include "companion/client/Client.h"

#import <Foundation/Foundation.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "platform/files/Descriptor.h"
#include "platform/macos/base/Values.h"
#import "platform/macos/control/ControlInterface.h"
#import "platform/macos/control/OrvaneSECommunication.h"

namespace orvane {
namespace {

using Remote = id<OrvaneSECommunication>;

// For edits of many names: how many host names are sent before the client waits for an answer.
constexpr size_t kWindow = 256;

// How long connect_client() waits for the first answer of the extension. The system may have to start the extension.
constexpr std::chrono::seconds kFirstAnswer(2);

const char* const kEnded = "it ended during the call: its log may say why; run the command again";

// The first error of a connection; later ones are ignored. Handlers set it on the framework's threads. Also has two
// sockets, so that the client has a descriptor (Client::descriptor()): `mine()` shows the program the end of the
// connection, and tells awaitShutdown() when the program gives up the connection.
class FirstError {
 public:
  using Clock = std::chrono::steady_clock;

  FirstError() {
    std::array<int, 2> sockets{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()) != 0) return;
    for (const int each : sockets) fcntl(each, F_SETFD, FD_CLOEXEC);
    mine_ = Descriptor(sockets[0]);
    other_ = Descriptor(sockets[1]);
  }

  void set(const std::string& text) {
    std::lock_guard guard(mutex_);
    if (text_.empty()) text_ = text;
  }
  std::string get() const {
    std::lock_guard guard(mutex_);
    return text_;
  }

  int mine() const { return mine_.get(); }
  // Makes mine() readable.
  void showEnd() { shutdown(other_.get(), SHUT_WR); }
  // Waits until somebody shuts down mine(). Returns false if this has not happened at the deadline.
  bool awaitShutdown(Clock::time_point deadline) const {
    pollfd end{other_.get(), POLLIN, 0};
    for (;;) {
      const int64_t left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (poll(&end, 1, static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX))) > 0) return true;
      if (left <= 0) return false;
    }
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
  Descriptor mine_, other_;
};

std::string describe(::NSError* error) {
  if ([[error domain] isEqualToString:NSCocoaErrorDomain]) {
    if ([error code] == NSXPCConnectionInvalid) {
      return "the system has no such service: switch the extension on, or name its service";
    }
    if ([error code] == NSXPCConnectionInterrupted) return kEnded;
  }
  return text_of([error localizedDescription]) + ": its log may say more";
}

// Whether a container may have this element. The element must not be nil or a set, and must not contain nil or a set.
// If a container has an element that is not allowed, the extension's side drops the whole message without an error. So
// the client checks before it sends.
bool is_property_list(const Value& element) {
  if (element.isNil() || element.isSet()) return false;
  const Value::Array& array = element.asArray();
  const Value::Dictionary& entries = element.asDictionary();
  return std::all_of(array.begin(), array.end(), is_property_list) &&
         std::all_of(entries.begin(), entries.end(),
                     [](const auto& entry) { return is_property_list(entry.first) && is_property_list(entry.second); });
}

// Throws if the argument cannot be sent. An argument can be sent if it is nil, or if it has the class that the protocol
// declares for it and contains only elements that is_property_list() allows.
void check_argument(const Value& argument, Value::Kind kind, const char* name) {
  if (argument.isNil()) return;
  if (argument.kind() != kind) throw ClientError(std::string("an argument cannot be sent: give ") + name);
  const Value::Set& members = argument.asSet();
  if (argument.isSet() ? !std::all_of(members.begin(), members.end(), is_property_list) : !is_property_list(argument)) {
    throw ClientError("an argument cannot be sent: it contains nil or a set: leave that out");
  }
}

// Uses synchronous proxies, so messages arrive in the order in which they were sent. Most messages have no reply, so
// this class sends a ping after them: the answer to the ping shows that the extension has carried out the messages
// before it.
class XPCClient final : public Client {
 public:
  explicit XPCClient(std::string service) : service_(std::move(service)) {}

  ~XPCClient() override {
    isEnding_ = true;
    shutdown(error_->mine(), SHUT_RDWR);
    if (canceller_.joinable()) canceller_.join();
    @autoreleasepool {
      [connection_ invalidate];
      [connection_ release];
    }
  }

  // Throws when no extension answers.
  void open() {
    attempt("reach", [this] { connect(); });
    isOpen_ = true;
  }

  int descriptor() const override { return error_->mine(); }

  bool ping() override { return reply<bool>("ping", &XPCClient::sendPing); }
  bool appFilterState() override {
    return reply<bool>("ask for the state of", [](Remote remote, std::optional<bool>* answer) {
      [remote getAppFilterStateWithReply:^(bool active) {
        *answer = active;
      }];
    });
  }
  uint64_t changesCount() override {
    return reply<uint64_t>("ask for the changes of", [](Remote remote, std::optional<uint64_t>* answer) {
      [remote getChangesCount:^(uint64_t count) {
        *answer = count;
      }];
    });
  }

  void start() override {
    run("start", [](Remote remote) { [remote start]; });
  }
  void stop() override {
    run("stop", [](Remote remote) { [remote stop]; });
  }

  void addApplicationIdentifier(const Value& identifier) override {
    check_argument(identifier, Value::Kind::String, "a string");
    run("add an application identifier to",
        [&](Remote remote) { [remote addApplicationIdentifier:foundation_object(identifier)]; });
  }
  void removeApplicationIdentifier(const Value& identifier) override {
    check_argument(identifier, Value::Kind::String, "a string");
    run("remove an application identifier from",
        [&](Remote remote) { [remote removeApplicationIdentifier:foundation_object(identifier)]; });
  }
  void setApplicationIdentifiers(const Value& identifiers) override {
    check_argument(identifiers, Value::Kind::Array, "an array");
    run("set the application identifiers of",
        [&](Remote remote) { [remote setApplicationIdentifiers:foundation_object(identifiers)]; });
  }
  void addHostname(const Value& hostname) override {
    check_argument(hostname, Value::Kind::String, "a string");
    run("add a host name to", [&](Remote remote) { [remote addHostname:foundation_object(hostname)]; });
  }
  void removeHostname(const Value& hostname) override {
    check_argument(hostname, Value::Kind::String, "a string");
    run("remove a host name from", [&](Remote remote) { [remote removeHostname:foundation_object(hostname)]; });
  }
  void setHostnames(const Value& hostnames) override {
    check_argument(hostnames, Value::Kind::Set, "a set");
    run("set the host names of", [&](Remote remote) { [remote setHostnames:foundation_object(hostnames)]; });
  }
  void setProperties(const Value& properties, const Value& forHostname) override {
    check_argument(properties, Value::Kind::Dictionary, "a dictionary");
    check_argument(forHostname, Value::Kind::String, "a string");
    run("set properties in", [&](Remote remote) {
      [remote setProperties:foundation_object(properties) forHostname:foundation_object(forHostname)];
    });
  }

  void addHostnames(std::span<const std::string> hostnames) override {
    sendEach("add host names to", hostnames,
             [](Remote remote, ::NSString* hostname) { [remote addHostname:hostname]; });
  }
  void removeHostnames(std::span<const std::string> hostnames) override {
    sendEach("remove host names from", hostnames,
             [](Remote remote, ::NSString* hostname) { [remote removeHostname:hostname]; });
  }
  // The framework reports no progress of a message, so `progress` is called only before and after the message.
  void setHostnames(std::span<const std::string> hostnames, const Progress& progress) override {
    uint64_t total = 0;
    for (const std::string& hostname : hostnames) total += hostname.size();
    run("set the host names of", [&](Remote remote) {
      ::NSMutableSet* names = [::NSMutableSet setWithCapacity:hostnames.size()];
      for (const std::string& hostname : hostnames) [names addObject:foundation_string(hostname)];
      if (progress) progress(0, total);
      [remote setHostnames:names];
      if (progress) progress(total, total);
    });
  }

 private:
  void connect() {
    // NSXPCConnectionPrivileged: the framework looks only among the system's services, whose names no user's program
    // can take.
    connection_ = [[::NSXPCConnection alloc] initWithMachServiceName:foundation_string(service_)
                                                             options:NSXPCConnectionPrivileged];
    [connection_ setRemoteObjectInterface:control_interface()];
    // After an interruption, the next message would reach a restarted extension, but the messages before the
    // interruption are lost. So an interruption ends the client.
    const std::shared_ptr<FirstError> firstError = error_;
    [connection_ setInterruptionHandler:^{
      firstError->set(kEnded);
      firstError->showEnd();
    }];
    // The system may also end the connection without an interruption. Then each call fails with an error of its own.
    [connection_ setInvalidationHandler:^{
      firstError->showEnd();
    }];
    [connection_ resume];
    if (firstError->mine() >= 0) canceller_ = std::thread([this] { cancel(); });
    awaitAnswer(remote());
    process_ = [connection_ processIdentifier];
  }

  // The body of canceller_. A call that waits for an answer cannot be cancelled, but it throws when another thread
  // invalidates the connection. This thread does so when somebody shuts down descriptor(), or if the first answer does
  // not come.
  void cancel() {
    if (!error_->awaitShutdown(FirstError::Clock::now() + kFirstAnswer) && isOpen_)
      error_->awaitShutdown(FirstError::Clock::time_point::max());
    if (isEnding_) return;
    isUnresponsive_ = true;
    error_->set("it does not answer: restart the Mac");
    [connection_ invalidate];
  }

  Remote remote() const {
    const std::shared_ptr<FirstError> firstError = error_;
    return [connection_ synchronousRemoteObjectProxyWithErrorHandler:^(::NSError* error) {
      firstError->set(describe(error));
    }];
  }

  static void sendPing(Remote remote, std::optional<bool>* answer) {
    [remote pingWithReply:^(bool alive) {
      *answer = alive;
    }];
  }

  void awaitAnswer(Remote remote) {
    std::optional<bool> answer;
    sendPing(remote, &answer);
    checkAnswer(answer.has_value());
  }

  // An answer from a restarted extension does not confirm the messages that were sent before the restart.
  void checkAnswer(bool hasAnswer) {
    if (!hasAnswer || (process_ != 0 && [connection_ processIdentifier] != process_)) error_->set(kEnded);
  }

  // Runs `work` and throws its failure as a ClientError. `work` must not throw C++ exceptions, which would skip
  // draining the autorelease pool.
  template <class Work>
  void attempt(const char* what, Work work) {
    @autoreleasepool {
      @try {
        work();
      } @catch (::NSException* exception) {
        error_->set(text_of([exception reason]) + ": give another argument");
      }
    }
    std::string error = error_->get();
    if (error.empty()) return;
    error = std::string("cannot ") + what + " the extension at " + service_ + ": " + error;
    if (isUnresponsive_) throw UnresponsiveExtension(error);
    throw ClientError(error);
  }

  template <class Send>
  void run(const char* what, Send send) {
    attempt(what, [&] {
      Remote remote = this->remote();
      send(remote);
      awaitAnswer(remote);
    });
  }

  template <class Reply, class Ask>
  Reply reply(const char* what, Ask ask) {
    std::optional<Reply> answer;
    attempt(what, [&] {
      ask(remote(), &answer);
      checkAnswer(answer.has_value());
    });
    return answer.value_or(Reply());
  }

  template <class Send>
  void sendEach(const char* what, std::span<const std::string> hostnames, Send send) {
    while (!hostnames.empty()) {
      const auto window = hostnames.first(std::min(kWindow, hostnames.size()));
      run(what, [&](Remote remote) {
        for (const std::string& hostname : window) send(remote, foundation_string(hostname));
      });
      hostnames = hostnames.subspan(window.size());
    }
  }

  const std::string service_;
  const std::shared_ptr<FirstError> error_ = std::make_shared<FirstError>();
  ::NSXPCConnection* connection_ = nil;
  std::thread canceller_;
  std::atomic<bool> isOpen_ = false, isEnding_ = false, isUnresponsive_ = false;
  pid_t process_ = 0;  // the process ID of the extension that gave the first answer; 0 until then
};

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions& options) {
  if (!options.socket.empty()) {
    throw ClientError("cannot reach the extension: it has no socket on this system: name its service");
  }
  auto client = std::make_unique<XPCClient>(options.service);
  client->open();
  return client;
}

}  // namespace orvane

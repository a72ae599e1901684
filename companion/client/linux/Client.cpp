#include "companion/client/Client.h"

#include <capnp/rpc-twoparty.h>
#include <kj/common.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

#include "companion/text/AccessGroup.h"
#include "platform/files/Descriptor.h"
#include "platform/linux/control/ControlStream.h"
#include "platform/linux/control/SocketEventPort.h"
#include "platform/linux/control/SocketPath.h"
#include "platform/linux/control/ValueMessage.h"

namespace orvane {
namespace {

using Remote = control::OrvaneSECommunication::Client;

// For edits of many names: how many messages may wait for their replies at the same time. The extension's own limit on
// such messages is higher.
constexpr size_t kWindow = 256;

constexpr capnp::ReaderOptions kReaderOptions{kMaximumMessageWords, 64};

// Room for everything in a call except its arguments: the message's segment table and the fields of the call, in words.
constexpr uint64_t kCallWords = 64;

capnp::MessageSize message_size(uint64_t words) { return {words + kCallWords, 0}; }

// The RPC objects of one connection. They belong to an event loop, so they are made, used and destroyed only while a
// kj::WaitScope of that loop exists.
struct Session {
  Session(SocketEventPort& port, int socket)
      : stream(port, socket),
        network(stream, capnp::rpc::twoparty::Side::CLIENT, kReaderOptions),
        system(capnp::makeRpcClient(network)),
        remote(nullptr) {
    capnp::MallocMessageBuilder vat(4);
    auto server = vat.initRoot<capnp::rpc::twoparty::VatId>();
    server.setSide(capnp::rpc::twoparty::Side::SERVER);
    remote = system.bootstrap(server).castAs<control::OrvaneSECommunication>();
  }

  ControlStream stream;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> system;
  Remote remote;
};

class LinuxClient final : public Client {
 public:
  LinuxClient(Descriptor socket, std::string path)
      : socket_(std::move(socket)), path_(std::move(path)), port_(socket_.get()), loop_(port_) {
    kj::WaitScope scope(loop_);
    session_ = std::make_unique<Session>(port_, socket_.get());
  }

  ~LinuxClient() noexcept override {
    kj::WaitScope scope(loop_);
    session_.reset();
  }

  int descriptor() const override { return socket_.get(); }

  bool ping() override {
    return reply<bool>("ping", [](Remote& remote) { return remote.pingRequest(message_size(0)).send(); });
  }
  bool appFilterState() override {
    return reply<bool>("ask for the state of",
                       [](Remote& remote) { return remote.getAppFilterStateRequest(message_size(0)).send(); });
  }
  uint64_t changesCount() override {
    return reply<uint64_t>("ask for the changes of",
                           [](Remote& remote) { return remote.getChangesCountRequest(message_size(0)).send(); });
  }

  void start() override {
    run("start", [](Remote& remote) { return remote.startRequest(message_size(0)).send().ignoreResult(); });
  }
  void stop() override {
    run("stop", [](Remote& remote) { return remote.stopRequest(message_size(0)).send().ignoreResult(); });
  }

  void addApplicationIdentifier(const Value& identifier) override {
    sendValue("add an application identifier to", identifier, &Remote::addApplicationIdentifierRequest,
              [](auto& call) { return call.initIdentifier(); });
  }
  void removeApplicationIdentifier(const Value& identifier) override {
    sendValue("remove an application identifier from", identifier, &Remote::removeApplicationIdentifierRequest,
              [](auto& call) { return call.initIdentifier(); });
  }
  void setApplicationIdentifiers(const Value& identifiers) override {
    sendValue("set the application identifiers of", identifiers, &Remote::setApplicationIdentifiersRequest,
              [](auto& call) { return call.initIdentifiers(); });
  }
  void addHostname(const Value& hostname) override {
    sendValue("add a host name to", hostname, &Remote::addHostnameRequest,
              [](auto& call) { return call.initHostname(); });
  }
  void removeHostname(const Value& hostname) override {
    sendValue("remove a host name from", hostname, &Remote::removeHostnameRequest,
              [](auto& call) { return call.initHostname(); });
  }
  void setHostnames(const Value& hostnames) override {
    sendValue("set the host names of", hostnames, &Remote::setHostnamesRequest,
              [](auto& call) { return call.initHostnames(); });
  }
  void setProperties(const Value& properties, const Value& forHostname) override {
    run("set properties in", [&, words = checked(properties) + checked(forHostname)](Remote& remote) {
      auto request = remote.setPropertiesRequest(message_size(words));
      write_value(properties, request.initProperties());
      write_value(forHostname, request.initForHostname());
      return request.send().ignoreResult();
    });
  }

  void addHostnames(std::span<const std::string> hostnames) override {
    sendEach("add host names to", hostnames, &Remote::addHostnameRequest);
  }
  void removeHostnames(std::span<const std::string> hostnames) override {
    sendEach("remove host names from", hostnames, &Remote::removeHostnameRequest);
  }
  void setHostnames(std::span<const std::string> hostnames, const Progress& progress) override {
    ValueSize size = measure(Value::set({}));
    for (const std::string& hostname : hostnames) {
      ValueSize one = measure_string(hostname.size());
      size.words += one.words;
      size.elements += one.elements;
    }
    check(size);
    KJ_DEFER(session_->stream.setProgress(nullptr));
    if (progress) reportTo(progress, size.words * sizeof(capnp::word));
    run("set the host names of", [&](Remote& remote) {
      auto request = remote.setHostnamesRequest(message_size(size.words));
      auto members = request.initHostnames().initSet().initMembers(static_cast<capnp::uint>(hostnames.size()));
      for (size_t i = 0; i < hostnames.size(); ++i) {
        members[static_cast<capnp::uint>(i)].setString({hostnames[i].c_str(), hostnames[i].size()});
      }
      return request.send().ignoreResult();
    });
  }

 private:
  static void check(const ValueSize& size) {
    if (!size.fits()) {
      throw ClientError("an argument is too large for one message (at most " + std::to_string(kMaximumElements) +
                        " elements, " + std::to_string(kMaximumCallWords * sizeof(capnp::word) >> 20) + " MiB, " +
                        std::to_string(kMaximumNesting) + " containers deep): send less");
    }
  }
  static uint64_t checked(const Value& value) {
    ValueSize size = measure(value);
    check(size);
    return size.words;
  }

  void reportTo(const Progress& progress, uint64_t total) {
    session_->stream.setProgress(ControlStream::Progress([&progress, total, sent = uint64_t{0}](size_t bytes) mutable {
      sent += bytes;
      progress(std::min(sent, total), total);
    }));
  }

  // Runs `work`, which may wait for the extension, and converts its exceptions to ClientError.
  template <class Work>
  void attempt(const char* what, Work work) {
    kj::WaitScope scope(loop_);
    auto failure = kj::runCatchingExceptions([&] { work(scope); });
    KJ_IF_MAYBE (exception, failure) {
      std::string text = std::string("cannot ") + what + " the extension at " + path_ + ": ";
      if (exception->getType() == kj::Exception::Type::DISCONNECTED) {
        throw ClientError(text + "it ended the connection; its log says why");
      }
      throw ClientError(text + exception->getDescription().cStr());
    }
  }

  template <class Send>
  void run(const char* what, Send send) {
    attempt(what, [&](kj::WaitScope& scope) { send(session_->remote).wait(scope); });
  }

  template <class Reply, class Send>
  Reply reply(const char* what, Send send) {
    Reply answer{};
    attempt(what, [&](kj::WaitScope& scope) { answer = send(session_->remote).wait(scope).getReply(); });
    return answer;
  }

  template <class Make, class Argument>
  void sendValue(const char* what, const Value& value, Make make, Argument argument) {
    uint64_t words = checked(value);
    run(what, [&](Remote& remote) {
      auto call = (remote.*make)(message_size(words));
      write_value(value, argument(call));
      return call.send().ignoreResult();
    });
  }

  template <class Make>
  void sendEach(const char* what, std::span<const std::string> hostnames, Make make) {
    for (const std::string& hostname : hostnames) check(measure_string(hostname.size()));
    attempt(what, [&](kj::WaitScope& scope) {
      std::deque<kj::Promise<void>> underWay;
      auto awaitFirst = [&] {
        underWay.front().wait(scope);
        underWay.pop_front();
      };
      for (const std::string& hostname : hostnames) {
        if (underWay.size() == kWindow) awaitFirst();
        auto call = (session_->remote.*make)(message_size(measure_string(hostname.size()).words));
        call.initHostname().setString({hostname.c_str(), hostname.size()});
        underWay.push_back(call.send().ignoreResult());
      }
      while (!underWay.empty()) awaitFirst();
    });
  }

  Descriptor socket_;
  std::string path_;
  SocketEventPort port_;
  kj::EventLoop loop_;
  std::unique_ptr<Session> session_;
};

// The path in the options; if the options have no path, the paths where an extension of this user or of the system
// would listen.
std::vector<std::string> paths_to_try(const ClientOptions& options) {
  if (!options.socket.empty()) return {options.socket};
  std::string error;
  std::vector<std::string> paths = client_socket_paths(options.service, &error);
  if (paths.empty()) throw ClientError("cannot reach the extension: " + error + "; give another name");
  return paths;
}

std::string advice(int error, const std::string& path) {
  switch (error) {
    case ECONNREFUSED:
      return "the extension that made it is gone: start it again";
    case ENAMETOOLONG:
      return "use a shorter path: this one is too long for a socket";
    case EACCES:
      // Only members of the service's group may enter this folder.
      if (path.starts_with(kServiceSocketFolder)) return access_advice();
      return "it belongs to another user: run as that user or as root";
    default:
      return "name another socket";
  }
}

// Connects to the first path that works, and sets `reached` to this path. A failure does not end the search, because a
// socket file that a dead extension left must not hide the socket of a live extension later in the list. If no path
// works, the error that is thrown describes the first failure other than a missing file.
Descriptor connect_to_first(const ClientOptions& options, std::string* reached) {
  const std::vector<std::string> paths = paths_to_try(options);
  std::string failure;
  bool isAbsent = true;
  for (const std::string& path : paths) {
    Descriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int error = connection ? connect_to(path, connection) : errno;
    if (error == 0) {
      *reached = path;
      return connection;
    }
    if (error == EINTR)
      throw UnresponsiveExtension("cannot reach the extension at " + path +
                                  ": it accepts no connection: it hangs, or serves too many clients; restart it");
    isAbsent = isAbsent && (error == ENOENT || error == ECONNREFUSED);
    if (error != ENOENT && failure.empty()) failure = path + ": " + std::strerror(error) + "; " + advice(error, path);
  }
  if (!failure.empty() && !isAbsent) throw ClientError("cannot reach the extension at " + failure);
  if (!failure.empty()) throw NoExtension("cannot reach the extension at " + failure);
  throw NoExtension(
      "cannot reach the extension: there is no socket at " +
      (options.socket.empty() ? std::string(kServiceSocketFolder) + '/' + options.service : options.socket) +
      "; start the extension (sudo systemctl start orvane-se), or name its socket or service");
}

}  // namespace

std::unique_ptr<Client> connect_client(const ClientOptions& options) {
  std::string path;
  Descriptor connection = connect_to_first(options, &path);
  std::unique_ptr<Client> client;
  auto failure = kj::runCatchingExceptions(
      [&] { client = std::make_unique<LinuxClient>(std::move(connection), std::move(path)); });
  KJ_IF_MAYBE (exception, failure) {
    throw ClientError(std::string("cannot reach the extension: ") + exception->getDescription().cStr());
  }
  return client;
}

}  // namespace orvane

#include "platform/XPC.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/files/Descriptor.h"
#include "platform/linux/control/ControlSession.h"
#include "platform/linux/control/ListenerSocket.h"
#include "platform/linux/control/SocketPath.h"

namespace orvane {
namespace {

// If kMaximumConnections clients are served and another client waits, sessions that have been idle for this long are
// ended until there is room.
constexpr auto kIdleLimit = std::chrono::seconds(5);
constexpr auto kIdleCheckInterval = std::chrono::milliseconds(100);

// The sockets of the clients that a listener serves. Callers identify a client by its socket's descriptor. Thread-safe.
class ClientSockets {
 public:
  // Waits until a client may be added, and ends the sessions of idle clients to make room. False after close().
  bool awaitRoom() {
    std::unique_lock lock(mutex_);
    auto hasRoom = [this] { return closing_ || sockets_.size() < kMaximumConnections; };
    while (!hasRoom()) {
      endIdleSession();
      changed_.wait_for(lock, kIdleCheckInterval, hasRoom);
    }
    return !closing_;
  }

  // Keeps the socket open until remove(), and returns its descriptor. `activity` must live until remove(), too.
  int add(Descriptor socket, const SessionActivity& activity) {
    std::lock_guard lock(mutex_);
    int descriptor = socket.get();
    sockets_.emplace(descriptor, Client{std::move(socket), peer_of(descriptor), &activity});
    if (closing_) shutdown(descriptor, SHUT_RDWR);
    return descriptor;
  }

  // Ends the session on the socket, unless the socket was removed.
  void shutDown(int descriptor) {
    std::lock_guard lock(mutex_);
    if (sockets_.contains(descriptor)) shutdown(descriptor, SHUT_RDWR);
  }

  void remove(int descriptor) {
    std::lock_guard lock(mutex_);
    sockets_.erase(descriptor);
    changed_.notify_all();
  }

  bool isClosing() {
    std::lock_guard lock(mutex_);
    return closing_;
  }

  // Ends all sessions, and every session whose socket is added later.
  void close() {
    std::lock_guard lock(mutex_);
    closing_ = true;
    for (const auto& [descriptor, client] : sockets_) shutdown(descriptor, SHUT_RDWR);
    changed_.notify_all();
  }

  // Waits until every socket is removed.
  void awaitEmpty() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return sockets_.empty(); });
  }

 private:
  struct Client {
    Descriptor socket;
    ucred peer;
    const SessionActivity* activity;
  };

  // Ends one of the sessions that have been idle for kIdleLimit; does nothing if no session has been idle for so long.
  // Among these sessions, chooses one whose user has the most sessions; if there are several, the session that has been
  // idle longest. The keeper of the list (companion/keeper) calls only when the list changes or while it undoes
  // the edits of other clients, so its session is usually idle. But the keeper runs as a user of its own with one
  // session, so it loses this session only if no user with more sessions has an idle session.
  void endIdleSession() {
    std::map<uid_t, size_t> clientsOfUser;
    for (const auto& [descriptor, client] : sockets_) ++clientsOfUser[client.peer.uid];
    const Client* chosen = nullptr;
    auto precedes = [&](const Client& left, const Client& right) {
      size_t leftClients = clientsOfUser[left.peer.uid], rightClients = clientsOfUser[right.peer.uid];
      if (leftClients != rightClients) return leftClients > rightClients;
      return left.activity->idleSince() < right.activity->idleSince();
    };
    const auto latest = SessionActivity::Clock::now() - kIdleLimit;
    for (const auto& [descriptor, client] : sockets_) {
      if (client.activity->idleSince() <= latest && (chosen == nullptr || precedes(client, *chosen))) chosen = &client;
    }
    if (chosen == nullptr) return;
    ORVANE_LOG_INFO(default_log(), "ended the control connection of process %d: it was idle, and another client waits",
                    chosen->peer.pid);
    shutdown(chosen->socket.get(), SHUT_RDWR);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, Client> sockets_;
  bool closing_ = false;
};

class Connection final : public NSXPCConnection {
 public:
  Connection(Descriptor socket, std::shared_ptr<ClientSockets> clients)
      : clients_(std::move(clients)), socket_(clients_->add(std::move(socket), activity_)) {}

  void setExportedInterface(const NSXPCInterface& exportedInterface) override {
    std::lock_guard lock(mutex_);
    protocol_ = exportedInterface.protocol();
  }

  void setExportedObject(OrvaneSECommunication* exportedObject) override {
    auto object = Ref<OrvaneSECommunication>::retained(exportedObject);
    std::lock_guard lock(mutex_);
    std::swap(exportedObject_, object);
  }

  void activate() override {
    if (activated_.exchange(true)) return;
    auto self = Ref<Connection>::retained(this);
    try {
      std::thread([self] { self->serve(); }).detach();
    } catch (const std::system_error& error) {
      ORVANE_LOG_ERROR(default_log(), "cannot start a thread for a control connection: %s", error.what());
      end(SessionEnd::Broken);
    }
  }

  void setInvalidationHandler(std::function<void()> handler) override { setHandler(SessionEnd::Closed, handler); }
  void setInterruptionHandler(std::function<void()> handler) override { setHandler(SessionEnd::Broken, handler); }

  // Ends a connection that the delegate rejected or did not activate. The delegate may activate a connection and
  // then reject it.
  void close() {
    if (activated_.exchange(true)) {
      clients_->shutDown(socket_);
    } else {
      clients_->remove(socket_);
    }
  }
  bool isActivated() const { return activated_; }

 private:
  ~Connection() override = default;

  void serve() {
    Ref<OrvaneSECommunication> exported;
    {
      std::lock_guard lock(mutex_);
      if (protocol_ == &OrvaneSECommunication::kProtocol) exported = exportedObject_;
    }
    end(serve_session(socket_, exported.get(), activity_));
  }

  void end(SessionEnd how) {
    std::function<void()> handler;
    {
      std::lock_guard lock(mutex_);
      ended_ = how;
      handler = takeHandler();
      exportedObject_ = nullptr;
    }
    if (handler) handler();
    clients_->remove(socket_);
  }

  void setHandler(SessionEnd how, std::function<void()>& handler) {
    std::function<void()> due;
    {
      std::lock_guard lock(mutex_);
      std::swap(how == SessionEnd::Closed ? invalidationHandler_ : interruptionHandler_, handler);
      due = takeHandler();
    }
    if (due) due();
  }

  // Returns the handler that the caller must now call: the handler for the way in which the session ended. Null if the
  // session has not ended, if that handler is not set, or if this function has returned a handler before.
  std::function<void()> takeHandler() {
    if (!ended_ || reported_) return nullptr;
    auto& handler = *ended_ == SessionEnd::Closed ? invalidationHandler_ : interruptionHandler_;
    reported_ = handler != nullptr;
    return std::exchange(handler, nullptr);
  }

  const std::shared_ptr<ClientSockets> clients_;
  SessionActivity activity_;
  const int socket_;  // owned by clients_
  std::atomic<bool> activated_{false};
  std::mutex mutex_;  // guards the members below
  const Protocol* protocol_ = nullptr;
  Ref<OrvaneSECommunication> exportedObject_;
  std::function<void()> invalidationHandler_, interruptionHandler_;
  std::optional<SessionEnd> ended_;
  bool reported_ = false;
};

class Listener final : public NSXPCListener {
 public:
  explicit Listener(const Value& name) : name_(name) {}

  void setDelegate(NSXPCListenerDelegate* delegate) override {
    auto next = Ref<NSXPCListenerDelegate>::retained(delegate);
    std::lock_guard lock(delegateMutex_);
    std::swap(delegate_, next);
  }

  void resume() override {
    if (socket_) return;
    std::string error;
    if (!listen(&error)) {
      ORVANE_LOG_ERROR(default_log(), "the control channel is closed: %@", error);
      return;
    }
    try {
      acceptor_ = std::thread([this] { acceptConnections(); });
    } catch (const std::system_error& cause) {
      ORVANE_LOG_ERROR(default_log(), "the control channel is closed: cannot start a thread: %s", cause.what());
      socket_.reset();
    }
  }

 private:
  // Ends the connections and waits for their threads.
  ~Listener() override {
    clients_->close();
    if (!acceptor_.joinable()) return;
    shutdown(socket_->descriptor(), SHUT_RDWR);  // wakes the acceptor
    acceptor_.join();
    clients_->awaitEmpty();
  }

  bool listen(std::string* error) {
    if (!name_.isString()) {
      *error = "the service name is not a string: " + name_.description();
      return false;
    }
    std::optional<ServerSocket> location = server_socket(std::string(name_.asString()), error);
    if (!location) return false;
    std::optional<ListenerSocket> socket = ListenerSocket::create(location->path, location->mode, error);
    if (socket) socket_.emplace(*std::move(socket));
    return socket_.has_value();
  }

  void acceptConnections() {
    while (!clients_->isClosing()) {
      Descriptor socket(accept4(socket_->descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
      if (socket) {
        // If there is no room for this client, an idle session is ended. A session is ended only when a client waits,
        // and only accept4() shows that a client waits. So the connection is accepted first.
        if (!clients_->awaitRoom()) return;
        admit(Ref<Connection>::adopt(new Connection(std::move(socket), clients_)));
      } else if (!clients_->isClosing() && errno != EINTR && errno != ECONNABORTED) {
        pauseAfterFailedAccept(errno);
      }
    }
  }

  void admit(const Ref<Connection>& connection) {
    Ref<NSXPCListenerDelegate> delegate;
    {
      std::lock_guard lock(delegateMutex_);
      delegate = delegate_;
    }
    bool accepted = delegate != nullptr && delegate->shouldAcceptNewConnection(*this, *connection);
    if (!accepted || !connection->isActivated()) connection->close();
  }

  // Call this after accept4() has failed, for example for lack of descriptors or memory. During the pause, new clients
  // wait in the socket's queue.
  static void pauseAfterFailedAccept(int error) {
    ORVANE_LOG_ERROR(default_log(), "cannot accept a control connection: %s", std::strerror(error));
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }

  const Value name_;
  std::mutex delegateMutex_;
  Ref<NSXPCListenerDelegate> delegate_;
  std::shared_ptr<ClientSockets> clients_ = std::make_shared<ClientSockets>();
  std::optional<ListenerSocket> socket_;
  std::thread acceptor_;
};

}  // namespace

Ref<NSXPCListener> NSXPCListener::initWithMachServiceName(const Value& name) {
  return Ref<Listener>::adopt(new Listener(name));
}

}  // namespace orvane

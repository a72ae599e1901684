#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>

#include <cstring>

#include "platform/Process.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessInformation.h"
#include "platform/linux/Programs.h"
#include "platform/linux/SocketOwner.h"

namespace orvane {
namespace {

// IPv4 and IPv6 addresses keep their port in the same place.
struct SocketAddress {
  sockaddr_in6 v6{};
  socklen_t length = sizeof(v6);
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&v6); }
};

SocketAddress make_address(int family, const char* text, in_port_t port) {
  SocketAddress address;
  address.v6.sin6_family = static_cast<sa_family_t>(family);
  address.v6.sin6_port = port;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&address.v6);
  ::inet_pton(family, text, family == AF_INET ? static_cast<void*>(&v4->sin_addr) : &address.v6.sin6_addr);
  if (family == AF_INET) address.length = sizeof(*v4);
  return address;
}

SocketAddress mapped(const SocketAddress& address) {
  return make_address(AF_INET6, "::ffff:127.0.0.1", address.v6.sin6_port);
}

SocketAddress address_of(int socket, decltype(::getsockname)* which) {
  SocketAddress address;
  which(socket, address.get(), &address.length);
  return address;
}

pid_t owner(SocketAddress local, SocketAddress remote) {
  Value data = audit_token_of_socket_owner(local.get(), remote.get());
  if (data.isNil()) return 0;
  audit_token_t token{};
  EXPECT_EQ(sizeof(token), data.asData().size());
  std::memcpy(&token, data.asData().data(), sizeof(token));
  return audit_token_to_pid(token);
}

// A listening socket and the connections to it.
struct Listener {
  explicit Listener(int family = AF_INET, const char* address = "127.0.0.1")
      : socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    SocketAddress any = make_address(family, address, 0);
    usable = ::bind(socket.get(), any.get(), any.length) == 0 && ::listen(socket.get(), 16) == 0;
  }
  SocketAddress address() const { return address_of(socket.get(), ::getsockname); }
  Descriptor accept() const { return Descriptor(::accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

  Descriptor socket;
  bool usable;
};

// A process that runs a function and then waits for its end.
class Child {
 public:
  template <class Function>
  explicit Child(Function function) : pid_(::fork()) {
    if (pid_ != 0) return;
    function();
    while (true) ::pause();
  }
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t pid() const { return pid_; }
  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  pid_t pid_;
};

void connect_to(SocketAddress address) {
  EXPECT_EQ(0, ::connect(::socket(address.v6.sin6_family, SOCK_STREAM, 0), address.get(), address.length));
}

TEST(SocketOwnerTest, TellsTheEndsOfAConnectionApart) {
  const std::tuple<int, const char*, bool> kCases[] = {
      {AF_INET, "127.0.0.1", false}, {AF_INET, "127.0.0.1", true}, {AF_INET6, "::1", false}};
  for (const auto& [family, address, clientIsMapped] : kCases) {
    Listener listener(family, address);
    if (!listener.usable) continue;  // no IPv6 here
    SocketAddress target = clientIsMapped ? mapped(listener.address()) : listener.address();
    Child client([&] { connect_to(target); });
    Descriptor connection = listener.accept();
    auto server = address_of(connection.get(), ::getsockname), peer = address_of(connection.get(), ::getpeername);
    EXPECT_EQ(client.pid(), owner(peer, server)) << address;
    EXPECT_EQ(::getpid(), owner(server, peer)) << address;
    if (family == AF_INET) {
      EXPECT_EQ(client.pid(), owner(mapped(peer), mapped(server)));
    }
    SocketAddress stranger = peer;
    stranger.v6.sin6_port = htons(1);
    EXPECT_EQ(0, owner(server, stranger)) << "the listener's owner";
    client.end();
    EXPECT_EQ(0, owner(peer, server)) << "a socket whose process has ended";
  }
  EXPECT_TRUE(audit_token_of_socket_owner(nullptr, nullptr).isNil());
}

TEST(SocketOwnerTest, NamesTheOpenerBeforeItsHeir) {
  Listener listener;
  int pipes[2];
  ASSERT_EQ(0, ::pipe2(pipes, O_CLOEXEC));
  Child opener([&] {
    connect_to(listener.address());
    pid_t heir = ::fork();
    if (heir != 0 && ::write(pipes[1], &heir, sizeof(heir)) < 0) ::_exit(1);
  });
  Descriptor connection = listener.accept();
  pid_t heir = 0;
  ASSERT_EQ(static_cast<ssize_t>(sizeof(heir)), ::read(pipes[0], &heir, sizeof(heir)));
  auto server = address_of(connection.get(), ::getsockname), peer = address_of(connection.get(), ::getpeername);
  EXPECT_EQ(opener.pid(), owner(peer, server));
  opener.end();
  EXPECT_EQ(heir, owner(peer, server));
  ::kill(heir, SIGKILL);
  EXPECT_TRUE(eventually([&] { return owner(peer, server) == 0; }));
  ::close(pipes[0]);
  ::close(pipes[1]);
}

TEST(SocketOwnerTest, KeepsConnectionsApartWhenAskedAtOnce) {
  constexpr size_t kClients = 4, kRounds = 50;
  Listener listener;
  std::vector<std::unique_ptr<Child>> clients;
  std::vector<Descriptor> connections;
  for (size_t i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<Child>([&] { connect_to(listener.address()); }));
    connections.push_back(listener.accept());
  }
  std::vector<std::thread> threads(kClients);
  for (size_t i = 0; i < kClients; ++i) {
    threads[i] = std::thread([&, i] {
      int socket = connections[i].get();
      for (size_t round = 0; round < kRounds; ++round) {
        ASSERT_EQ(clients[i]->pid(), owner(address_of(socket, ::getpeername), address_of(socket, ::getsockname)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace orvane

#include <netdb.h>
#include <netinet/in.h>

#include <cstring>

#include "platform/Process.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/Programs.h"
#include "platform/linux/SocketOwner.h"

namespace orvane {
namespace {

// Holds an IPv4 address too, with its port in the same place.
using Address = sockaddr_in6;
sockaddr* generic(Address& address) { return reinterpret_cast<sockaddr*>(&address); }

Address address_of(const Descriptor& socket, decltype(::getsockname)* which = ::getsockname) {
  Address address{};
  socklen_t length = sizeof(address);
  which(socket.get(), generic(address), &length);
  return address;
}

pid_t owner(Address local, Address remote) {
  Value data = audit_token_of_socket_owner(generic(local), generic(remote));
  if (data.isNil()) return 0;
  audit_token_t token{};
  EXPECT_EQ(sizeof(token), data.asData().size());
  std::memcpy(&token, data.asData().data(), sizeof(token));
  return audit_token_to_pid(token);
}

TEST(SocketOwnerTest, TellsEndsAndHeirsOfAConnectionApart) {
  for (const char* host : {"127.0.0.1", "::ffff:127.0.0.1", "::1"}) {
    SCOPED_TRACE(host);
    addrinfo hints{}, *any = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    ASSERT_EQ(0, ::getaddrinfo(host, nullptr, &hints, &any));
    Descriptor listener(::socket(any->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Descriptor client(::socket(any->ai_family, SOCK_STREAM, 0));  // programs inherit it
    bool bound = ::bind(listener.get(), any->ai_addr, any->ai_addrlen) == 0;
    bool optional = any->ai_family == AF_INET6;
    ::freeaddrinfo(any);
    if (!bound && optional) continue;  // no IPv6 here
    ASSERT_EQ(0, ::listen(listener.get(), 1));
    Address target = address_of(listener);
    ASSERT_EQ(0, ::connect(client.get(), generic(target), sizeof(target)));
    Descriptor server(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    Address near = address_of(server), far = address_of(server, ::getpeername), stranger = far;
    RunningProgram heir("/bin/sleep");
    EXPECT_EQ(::getpid(), owner(far, near)) << "not the heir";
    client.reset();
    EXPECT_EQ(heir.pid, owner(far, near));
    EXPECT_EQ(::getpid(), owner(near, far));
    stranger.sin6_port = htons(1);
    EXPECT_EQ(0, owner(near, stranger)) << "the listener's owner";
    heir.end();
    EXPECT_EQ(0, owner(far, near)) << "a socket whose process has ended";
  }
}

}  // namespace
}  // namespace orvane

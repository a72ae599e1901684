#include "platform/linux/base/SocketAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "platform/KeyedHash.h"

namespace orvane {

std::optional<SocketAddress> SocketAddress::from(const sockaddr* address, socklen_t length) {
  if (address == nullptr || length < sizeof(sa_family_t)) return std::nullopt;
  if (address->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
    sockaddr_in in;
    std::memcpy(&in, address, sizeof in);
    return v4(reinterpret_cast<const uint8_t*>(&in.sin_addr), ntohs(in.sin_port));
  }
  if (address->sa_family != AF_INET6 || length < sizeof(sockaddr_in6)) return std::nullopt;
  sockaddr_in6 in;
  std::memcpy(&in, address, sizeof in);
  return v6(in.sin6_addr.s6_addr, ntohs(in.sin6_port), in.sin6_scope_id);
}

SocketAddress SocketAddress::v4(const uint8_t* address, uint16_t port) {
  SocketAddress result{AF_INET, port};
  std::copy_n(address, 4, result.address.begin());
  return result;
}

SocketAddress SocketAddress::v6(const uint8_t* address, uint16_t port, uint32_t scope) {
  in6_addr in;
  std::memcpy(&in, address, sizeof in);
  if (IN6_IS_ADDR_V4MAPPED(&in)) return v4(address + 12, port);
  SocketAddress result{AF_INET6, port, IN6_IS_ADDR_LINKLOCAL(&in) ? scope : 0};
  std::copy_n(address, 16, result.address.begin());
  return result;
}

std::string SocketAddress::host() const {
  if (family == AF_INET) {  // inet_ntop(3) takes ten times as long as this loop
    std::string text;
    for (size_t i = 0; i < 4; ++i) text.append(i == 0 ? "" : ".").append(std::to_string(address[i]));
    return text;
  }
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, address.data(), text, sizeof text);
  return text;
}

size_t SocketPairHash::operator()(const SocketPair& pair) const {
  char bytes[1 + 2 * (sizeof pair.local.address + sizeof pair.local.port)];
  char* position = bytes;
  const auto append = [&](const void* field, size_t size) {
    position = std::copy_n(static_cast<const char*>(field), size, position);
  };
  append(&pair.protocol, sizeof pair.protocol);
  for (const SocketAddress* end : {&pair.local, &pair.remote}) {
    append(end->address.data(), end->address.size());
    append(&end->port, sizeof end->port);
  }
  return keyed_hash({bytes, sizeof bytes});
}

}  // namespace orvane

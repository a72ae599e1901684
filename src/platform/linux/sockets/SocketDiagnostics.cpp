#include "platform/linux/sockets/SocketDiagnostics.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

namespace orvane {
namespace {

SocketAddress read_endpoint(uint8_t family, const __be32* words, uint16_t port) {
  std::array<uint8_t, 16> bytes;
  std::memcpy(bytes.data(), words, bytes.size());
  return family == AF_INET ? SocketAddress::v4(bytes.data(), ntohs(port))
                           : SocketAddress::v6(bytes.data(), ntohs(port));
}

bool is_any(const SocketAddress& end) {
  return std::all_of(end.address.begin(), end.address.end(), [](uint8_t byte) { return byte == 0; });
}

// Ignores the scope, which is an interface index: every link-local address in a SocketPair has a scope, but the kernel
// reports an interface only for a socket that is bound to an interface.
bool same_address(const SocketAddress& a, const SocketAddress& b) {
  return a.family == b.family && a.address == b.address;
}

// Returns how well a socket matches the pair; 0 means no match. A TCP socket matches if both endpoints match. A
// datagram socket gets points, and the socket with the most points is chosen:
//
//   1  its local port matches, and its local address matches or is unset (an unset IPv6 address also fits IPv4)
//  +1  its local address matches
//  +2  it has no peer
//  +4  its peer matches
//
// A datagram socket with another peer can match, too, because it may still send to the pair's remote endpoint.
constexpr int kPeerMatches = 5;  // the lowest score with a matching peer

int match_score(const SocketPair& pair, const inet_diag_msg& message) {
  SocketAddress local = read_endpoint(message.idiag_family, message.id.idiag_src, message.id.idiag_sport);
  SocketAddress remote = read_endpoint(message.idiag_family, message.id.idiag_dst, message.id.idiag_dport);
  if (local.port != pair.local.port) return 0;
  bool localMatches = same_address(local, pair.local);
  bool remoteMatches = same_address(remote, pair.remote) && remote.port == pair.remote.port;
  if (pair.protocol == IPPROTO_TCP) return localMatches && remoteMatches ? 1 : 0;
  if (!localMatches && !is_any(local)) return 0;
  return 1 + (localMatches ? 1 : 0) + (is_any(remote) ? 2 : 0) + (remoteMatches ? 4 : 0);
}

uint64_t cookie_of(const inet_diag_msg& message) {
  return uint64_t{message.id.idiag_cookie[1]} << 32 | message.id.idiag_cookie[0];
}

void write_endpoint(const SocketAddress& end, __be32* words, __be16& port) {
  std::memcpy(words, end.address.data(), end.address.size());
  port = htons(end.port);
}

// Requests the socket with exactly these endpoints. For datagrams, the kernel looks for the socket that would receive a
// packet with the source and destination of the request. So the source is the remote endpoint.
inet_diag_req_v2 exact_request(const SocketPair& pair) {
  inet_diag_req_v2 request{};
  request.sdiag_family = static_cast<uint8_t>(pair.local.family);
  request.sdiag_protocol = pair.protocol;
  request.idiag_states = UINT32_MAX;
  bool stream = pair.protocol == IPPROTO_TCP;
  write_endpoint(stream ? pair.local : pair.remote, request.id.idiag_src, request.id.idiag_sport);
  write_endpoint(stream ? pair.remote : pair.local, request.id.idiag_dst, request.id.idiag_dport);
  request.id.idiag_if = std::max(pair.local.scope, pair.remote.scope);
  std::fill(std::begin(request.id.idiag_cookie), std::end(request.id.idiag_cookie), INET_DIAG_NOCOOKIE);
  return request;
}

// Requests the sockets of a family that are bound to the local port, or all sockets of the family if the port is 0.
inet_diag_req_v2 dump_request(const SocketPair& pair, uint8_t family) {
  inet_diag_req_v2 request{};
  request.sdiag_family = family;
  request.sdiag_protocol = pair.protocol;
  request.idiag_states = UINT32_MAX;
  request.id.idiag_sport = htons(pair.local.port);
  return request;
}

// The indexes of all interfaces. if_nameindex(3) waits for the kernel's RTNL lock, and any user can keep this lock for
// ever: the kernel holds the lock while it copies a request (SIOCETHTOOL) from the user's memory, and the user can make
// the copy wait (SocketAborter.h). This function makes no call that takes the lock.
std::vector<uint32_t> interface_indexes(int socket) {
  std::vector<uint32_t> indexes;
  std::ifstream devices("/proc/thread-self/net/dev");  // a line for each interface: spaces, the name, ':', counters
  for (std::string line; std::getline(devices, line);) {
    const size_t begin = line.find_first_not_of(' '), end = line.find(':');
    ifreq request{};
    if (end == std::string::npos || end - begin >= sizeof request.ifr_name) continue;
    line.copy(request.ifr_name, end - begin, begin);
    if (::ioctl(socket, SIOCGIFINDEX, &request) == 0) indexes.push_back(static_cast<uint32_t>(request.ifr_ifindex));
  }
  return indexes;
}

}  // namespace

SocketDiagnostics::SocketDiagnostics() : netlink_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
  if (!netlink_) openError_ = errno;
}

std::optional<SocketFacts> SocketDiagnostics::find(const SocketPair& pair) {
  std::optional<SocketFacts> found;
  int best = 0;
  auto keepBest = [&](const inet_diag_msg& message) {
    int score = match_score(pair, message);
    if (score <= best) return;
    best = score;
    bool connected = message.id.idiag_dport != 0 && score >= kPeerMatches;
    found = SocketFacts{cookie_of(message), message.idiag_inode, message.idiag_uid, connected};
  };
  errno = 0;
  inet_diag_req_v2 exact = exact_request(pair);
  if (pair.local.family != pair.remote.family || !query(exact, 0, keepBest) || found) return found;
  if (pair.protocol == IPPROTO_UDP) {
    // The exact look-up misses sockets that send to a destination other than their peer, and sockets that are bound to
    // an interface. IPv4 datagrams may come from an IPv4 or an IPv6 socket, so both families are dumped.
    bool ok = pair.local.family != AF_INET || query(dump_request(pair, AF_INET), NLM_F_DUMP, keepBest);
    if (ok) query(dump_request(pair, AF_INET6), NLM_F_DUMP, keepBest);
    return found;
  }
  // The exact look-up finds a socket that is bound to an interface only if the request names the interface, so each
  // interface is tried. A dump of all TCP sockets would take a hundred times as long, because the kernel walks its
  // whole hash table, whose size depends on the machine's memory.
  for (uint32_t interface : interface_indexes(netlink_.get())) {
    exact.id.idiag_if = interface;
    if (!query(exact, 0, keepBest) || found) break;
  }
  return found;
}

std::vector<uint64_t> SocketDiagnostics::streams() {
  std::vector<uint64_t> cookies;
  SocketPair all{};
  all.protocol = IPPROTO_TCP;
  for (uint8_t family : {AF_INET, AF_INET6}) {
    query(dump_request(all, family), NLM_F_DUMP,
          [&](const inet_diag_msg& each) { cookies.push_back(cookie_of(each)); });
  }
  return cookies;
}

int SocketDiagnostics::abort(const SocketPair& pair, uint64_t cookie) {
  inet_diag_req_v2 request{};
  request.sdiag_family = static_cast<uint8_t>(pair.local.family);
  request.sdiag_protocol = pair.protocol;
  write_endpoint(pair.local, request.id.idiag_src, request.id.idiag_sport);
  write_endpoint(pair.remote, request.id.idiag_dst, request.id.idiag_dport);
  request.id.idiag_if = std::max(pair.local.scope, pair.remote.scope);
  request.id.idiag_cookie[0] = static_cast<uint32_t>(cookie);
  request.id.idiag_cookie[1] = static_cast<uint32_t>(cookie >> 32U);
  auto ignore = [](const inet_diag_msg&) {};
  return query(request, NLM_F_ACK, ignore, SOCK_DESTROY) ? 0 : errno;
}

// Sends a request and reads the reply. Returns false and sets errno on failure. "No such socket" is a valid reply to a
// query for sockets.
bool SocketDiagnostics::query(const inet_diag_req_v2& request, uint16_t flags, const SocketCallback& onSocket,
                              uint16_t type) {
  if (!netlink_) {
    errno = openError_;
    return false;
  }
  alignas(nlmsghdr) std::array<char, NLMSG_SPACE(sizeof(inet_diag_req_v2))> buffer{};
  nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = type;
  header->nlmsg_flags = NLM_F_REQUEST | flags;
  header->nlmsg_seq = ++sequence_;
  std::memcpy(mnl_nlmsg_put_extra_header(header, sizeof request), &request, sizeof request);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(netlink_.get(), header, header->nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
               sizeof kernel) < 0) {
    return false;
  }
  Reply reply = Reply::Unfinished;
  while (reply == Reply::Unfinished) reply = receive(onSocket);
  if (reply == Reply::Failed && type == SOCK_DIAG_BY_FAMILY && errno == ENOENT) {
    errno = 0;
    return true;
  }
  return reply == Reply::Finished;
}

// Receives one netlink datagram from the kernel. It contains one or several messages.
SocketDiagnostics::Reply SocketDiagnostics::receive(const SocketCallback& onSocket) {
  alignas(nlmsghdr) std::array<char, 32768> buffer;
  ssize_t length = ::recv(netlink_.get(), buffer.data(), buffer.size(), 0);
  if (length < 0) return errno == EINTR ? Reply::Unfinished : Reply::Failed;
  int rest = static_cast<int>(length);
  for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(header, rest);
       header = mnl_nlmsg_next(header, &rest)) {
    if (header->nlmsg_seq != sequence_) continue;  // a late reply to a request that failed
    if (header->nlmsg_type == NLMSG_DONE) return Reply::Finished;
    if (header->nlmsg_type == NLMSG_ERROR) {
      nlmsgerr error{};
      std::memcpy(&error, mnl_nlmsg_get_payload(header), std::min(mnl_nlmsg_get_payload_len(header), sizeof error));
      errno = -error.error;
      return errno == 0 ? Reply::Finished : Reply::Failed;
    }
    if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || mnl_nlmsg_get_payload_len(header) < sizeof(inet_diag_msg)) {
      continue;
    }
    inet_diag_msg message;
    std::memcpy(&message, mnl_nlmsg_get_payload(header), sizeof message);
    onSocket(message);
    if ((header->nlmsg_flags & NLM_F_MULTI) == 0) return Reply::Finished;
  }
  return Reply::Unfinished;
}

}  // namespace orvane

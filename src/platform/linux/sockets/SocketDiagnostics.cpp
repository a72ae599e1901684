#include "platform/linux/sockets/SocketDiagnostics.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

namespace orvane {
namespace {

SocketAddress read_end(uint8_t family, const __be32* words, uint16_t port) {
  std::array<uint8_t, 16> bytes;
  std::memcpy(bytes.data(), words, bytes.size());
  return family == AF_INET ? SocketAddress::v4(bytes.data(), ntohs(port))
                           : SocketAddress::v6(bytes.data(), ntohs(port));
}

bool is_any(const SocketAddress& end) {
  return std::all_of(end.address.begin(), end.address.end(), [](uint8_t byte) { return byte == 0; });
}

// The interface is left out: that of a socket is the one it is bound to, if it is bound to one.
bool same_address(const SocketAddress& a, const SocketAddress& b) {
  return a.family == b.family && a.address == b.address;
}

// How well a socket fits a pair; 0 when the pair cannot be its. From kPeerFits on, of a datagram's, it has that peer.
constexpr int kPeerFits = 5;

int fitness(const SocketPair& pair, const inet_diag_msg& message) {
  SocketAddress local = read_end(message.idiag_family, message.id.idiag_src, message.id.idiag_sport);
  SocketAddress remote = read_end(message.idiag_family, message.id.idiag_dst, message.id.idiag_dport);
  if (local.port != pair.local.port) return 0;
  bool localFits = same_address(local, pair.local);
  bool remoteFits = same_address(remote, pair.remote) && remote.port == pair.remote.port;
  if (pair.protocol == IPPROTO_TCP) return localFits && remoteFits ? 1 : 0;
  // A datagram's socket may be bound to no address, to several (one of IPv6 sends by IPv4 too), and, though it has a
  // peer, send to another when told so.
  if (!localFits && !is_any(local)) return 0;
  return 1 + (localFits ? 1 : 0) + (remoteFits ? 4 : 0) + (is_any(remote) ? 2 : 0);
}

void write_end(const SocketAddress& end, __be32* words, __be16& port) {
  std::memcpy(words, end.address.data(), end.address.size());
  port = htons(end.port);
}

// The kernel's look-up for datagrams is the one for an incoming packet: its source is our peer.
inet_diag_req_v2 exact_request(const SocketPair& pair) {
  inet_diag_req_v2 request{};
  request.sdiag_family = static_cast<uint8_t>(pair.local.family);
  request.sdiag_protocol = pair.protocol;
  request.idiag_states = UINT32_MAX;
  bool stream = pair.protocol == IPPROTO_TCP;
  write_end(stream ? pair.local : pair.remote, request.id.idiag_src, request.id.idiag_sport);
  write_end(stream ? pair.remote : pair.local, request.id.idiag_dst, request.id.idiag_dport);
  request.id.idiag_if = std::max(pair.local.scope, pair.remote.scope);
  std::fill(std::begin(request.id.idiag_cookie), std::end(request.id.idiag_cookie), INET_DIAG_NOCOOKIE);
  return request;
}

// All sockets for datagrams that are bound to the local port. An IPv4 datagram may be of either family's.
inet_diag_req_v2 dump_request(const SocketPair& pair, uint8_t family) {
  inet_diag_req_v2 request{};
  request.sdiag_family = family;
  request.sdiag_protocol = pair.protocol;
  request.idiag_states = UINT32_MAX;
  request.id.idiag_sport = htons(pair.local.port);
  return request;
}

}  // namespace

SocketDiagnostics::SocketDiagnostics() : netlink_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
  if (!netlink_) openError_ = errno;
}

std::optional<SocketFacts> SocketDiagnostics::find(const SocketPair& pair) {
  std::optional<SocketFacts> found;
  int best = 0;
  auto take = [&](const inet_diag_msg& message) {
    int fits = fitness(pair, message);
    if (fits <= best) return;
    best = fits;
    uint64_t cookie = uint64_t{message.id.idiag_cookie[1]} << 32 | message.id.idiag_cookie[0];
    found =
        SocketFacts{cookie, message.idiag_inode, message.idiag_uid, message.id.idiag_dport != 0 && fits >= kPeerFits};
  };
  errno = 0;
  inet_diag_req_v2 exact = exact_request(pair);
  if (pair.local.family != pair.remote.family || !ask(exact, 0, take) || found) return found;
  if (pair.protocol == IPPROTO_UDP) {
    // One that sends to another than its peer, or that is bound to an interface.
    bool asked = pair.local.family != AF_INET || ask(dump_request(pair, AF_INET), NLM_F_DUMP, take);
    if (asked) ask(dump_request(pair, AF_INET6), NLM_F_DUMP, take);
    return found;
  }
  // The exact look-up sees a socket that is bound to an interface only when told which. A dump takes a hundred times as
  // long as all of this: the kernel goes through all of its table, which is as large as the machine's memory allows.
  std::unique_ptr<struct if_nameindex, void (*)(struct if_nameindex*)> interfaces(::if_nameindex(), ::if_freenameindex);
  for (const auto* each = interfaces.get(); each != nullptr && each->if_index != 0; ++each) {
    exact.id.idiag_if = each->if_index;
    if (!ask(exact, 0, take) || found) break;
  }
  return found;
}

// False when the question could not be asked, which errno tells. "No such socket" is an answer.
bool SocketDiagnostics::ask(const inet_diag_req_v2& request, uint16_t flags, const Take& take) {
  if (!netlink_) {
    errno = openError_;
    return false;
  }
  alignas(nlmsghdr) std::array<char, NLMSG_SPACE(sizeof(inet_diag_req_v2))> buffer{};
  nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  header->nlmsg_flags = NLM_F_REQUEST | flags;
  header->nlmsg_seq = ++sequence_;
  std::memcpy(mnl_nlmsg_put_extra_header(header, sizeof request), &request, sizeof request);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(netlink_.get(), header, header->nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
               sizeof kernel) < 0) {
    return false;
  }
  Answer answer = Answer::Unfinished;
  while (answer == Answer::Unfinished) answer = receive(take);
  return answer == Answer::Finished;
}

// One message of the kernel's, which holds one answer or several.
SocketDiagnostics::Answer SocketDiagnostics::receive(const Take& take) {
  alignas(nlmsghdr) std::array<char, 32768> buffer;
  ssize_t length = ::recv(netlink_.get(), buffer.data(), buffer.size(), 0);
  if (length < 0) return errno == EINTR ? Answer::Unfinished : Answer::Failed;
  int rest = static_cast<int>(length);
  for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(header, rest);
       header = mnl_nlmsg_next(header, &rest)) {
    if (header->nlmsg_seq != sequence_) continue;  // of a question that was given up
    if (header->nlmsg_type == NLMSG_DONE) return Answer::Finished;
    if (header->nlmsg_type == NLMSG_ERROR) {
      nlmsgerr error{};
      std::memcpy(&error, mnl_nlmsg_get_payload(header), std::min(mnl_nlmsg_get_payload_len(header), sizeof error));
      errno = error.error == -ENOENT ? 0 : -error.error;
      return errno == 0 ? Answer::Finished : Answer::Failed;
    }
    if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || mnl_nlmsg_get_payload_len(header) < sizeof(inet_diag_msg)) {
      continue;
    }
    inet_diag_msg message;
    std::memcpy(&message, mnl_nlmsg_get_payload(header), sizeof message);
    take(message);
    if ((header->nlmsg_flags & NLM_F_MULTI) == 0) return Answer::Finished;
  }
  return Answer::Unfinished;
}

}  // namespace orvane

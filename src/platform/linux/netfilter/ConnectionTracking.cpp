#include "platform/linux/netfilter/ConnectionTracking.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace orvane {
namespace {

// Appends the endpoints of one direction of a connection. `type` is CTA_TUPLE_ORIG for the direction of the
// connection's first packet, and CTA_TUPLE_REPLY for the other direction.
void put_tuple(nlmsghdr* message, uint16_t type, uint8_t protocol, const SocketAddress& source,
               const SocketAddress& destination) {
  const bool v4 = source.family == AF_INET;
  const size_t length = v4 ? 4 : 16;
  nlattr* tuple = mnl_attr_nest_start(message, type);
  nlattr* addresses = mnl_attr_nest_start(message, CTA_TUPLE_IP);
  mnl_attr_put(message, v4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, length, source.address.data());
  mnl_attr_put(message, v4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, length, destination.address.data());
  mnl_attr_nest_end(message, addresses);
  nlattr* ports = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(message, CTA_PROTO_NUM, protocol);
  mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, htons(source.port));
  mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(destination.port));
  mnl_attr_nest_end(message, ports);
  mnl_attr_nest_end(message, tuple);
}

}  // namespace

std::optional<std::string> ConnectionTracking::open() {
  socket_ = {mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC), mnl_socket_close};
  if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    return "no netlink socket: " + std::generic_category().message(errno);
  }
  // Tries to change a connection that cannot exist. Before the kernel looks for the connection, it checks whether it
  // has the module nf_conntrack_netlink and whether the calling process has CAP_NET_ADMIN. So ENOENT (no such
  // connection) means that both checks succeeded, and marks can be changed.
  const uint8_t none[4]{};
  const int error = setMark({IPPROTO_TCP, SocketAddress::v4(none, 0), SocketAddress::v4(none, 0)}, 0, 0);
  if (error == ENOENT) return std::nullopt;
  return "the kernel does not change the marks of connections: " + std::generic_category().message(error);
}

int ConnectionTracking::setMark(const SocketPair& pair, uint32_t mark, uint32_t mask,
                                std::optional<std::chrono::seconds> lifetime) {
  std::array<char, 512> message{};
  nlmsghdr* header = mnl_nlmsg_put_header(message.data());
  header->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  header->nlmsg_seq = ++sequence_;
  auto* family = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  family->nfgen_family = static_cast<uint8_t>(pair.local.family);
  family->version = NFNETLINK_V0;
  put_tuple(header, CTA_TUPLE_ORIG, pair.protocol, pair.local, pair.remote);
  if (lifetime) {
    header->nlmsg_flags |= NLM_F_CREATE;
    put_tuple(header, CTA_TUPLE_REPLY, pair.protocol, pair.remote, pair.local);
    mnl_attr_put_u32(header, CTA_TIMEOUT, htonl(static_cast<uint32_t>(lifetime->count())));
  }
  mnl_attr_put_u32(header, CTA_MARK, htonl(mark));
  mnl_attr_put_u32(header, CTA_MARK_MASK, htonl(mask));

  if (mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) return errno;
  alignas(nlmsghdr) std::array<char, 8192> reply;
  const ssize_t size = mnl_socket_recvfrom(socket_.get(), reply.data(), reply.size());
  if (size < 0) return errno;
  const unsigned port = mnl_socket_get_portid(socket_.get());
  return mnl_cb_run(reply.data(), static_cast<size_t>(size), sequence_, port, nullptr, nullptr) < 0 ? errno : 0;
}

}  // namespace orvane

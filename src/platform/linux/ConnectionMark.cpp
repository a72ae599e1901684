#include "platform/linux/ConnectionMark.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <array>

namespace orvane {

ConnectionMarks::ConnectionMarks() : socket_(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC), mnl_socket_close) {
  if (socket_ && mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) socket_.reset();
}

bool ConnectionMarks::set(const SocketPair& pair, uint32_t mark, uint32_t mask) {
  if (!socket_) return false;
  alignas(nlmsghdr) std::array<char, 1024> buffer{};
  nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  header->nlmsg_seq = 1;
  auto* family = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  family->nfgen_family = static_cast<uint8_t>(pair.local.family);
  family->version = NFNETLINK_V0;

  bool v4 = pair.local.family == AF_INET;
  size_t length = v4 ? 4 : 16;
  nlattr* tuple = mnl_attr_nest_start(header, CTA_TUPLE_ORIG);
  nlattr* addresses = mnl_attr_nest_start(header, CTA_TUPLE_IP);
  mnl_attr_put(header, v4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, length, pair.local.address.data());
  mnl_attr_put(header, v4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, length, pair.remote.address.data());
  mnl_attr_nest_end(header, addresses);
  nlattr* protocol = mnl_attr_nest_start(header, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(header, CTA_PROTO_NUM, pair.protocol);
  mnl_attr_put_u16(header, CTA_PROTO_SRC_PORT, htons(pair.local.port));
  mnl_attr_put_u16(header, CTA_PROTO_DST_PORT, htons(pair.remote.port));
  mnl_attr_nest_end(header, protocol);
  mnl_attr_nest_end(header, tuple);
  mnl_attr_put_u32(header, CTA_MARK, htonl(mark));
  mnl_attr_put_u32(header, CTA_MARK_MASK, htonl(mask));

  if (mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) return false;
  ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
  unsigned port = mnl_socket_get_portid(socket_.get());
  return size >= 0 && mnl_cb_run(buffer.data(), static_cast<size_t>(size), 1, port, nullptr, nullptr) >= 0;
}

}  // namespace orvane

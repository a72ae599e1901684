#include "platform/linux/netfilter/PacketQueue.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace orvane {
namespace {

constexpr size_t kLargestPacket = 0xffff;
constexpr size_t kMessageRoom = 8192;  // around the packet
// Packets in the kernel's hands. More than the socket's buffer has room for: that one's overruns are told.
constexpr uint32_t kQueueLength = 1 << 17;
// For copies of packets. A burst of new connections is one packet each, of some 2 KiB. Memory is taken as it is used.
constexpr int kSocketBuffer = 64 << 20;
constexpr uint32_t kFlags = NFQA_CFG_F_FAIL_OPEN | NFQA_CFG_F_GSO;

void put_bind(nlmsghdr* message) { nfq_nlmsg_cfg_put_cmd(message, AF_UNSPEC, NFQNL_CFG_CMD_BIND); }

// Means nothing any more, and is permitted to whoever may configure queues.
void put_nothing(nlmsghdr* message) { nfq_nlmsg_cfg_put_cmd(message, AF_UNSPEC, NFQNL_CFG_CMD_PF_UNBIND); }

void put_settings(nlmsghdr* message) {
  nfq_nlmsg_cfg_put_params(message, NFQNL_COPY_PACKET, kLargestPacket);
  nfq_nlmsg_cfg_put_qmaxlen(message, kQueueLength);
  mnl_attr_put_u32(message, NFQA_CFG_FLAGS, htonl(kFlags));
  mnl_attr_put_u32(message, NFQA_CFG_MASK, htonl(kFlags));
}

uint32_t number_of(const nlattr* attribute) {
  return attribute == nullptr || mnl_attr_get_payload_len(attribute) < sizeof(uint32_t)
             ? 0
             : ntohl(mnl_attr_get_u32(attribute));
}

}  // namespace

std::optional<std::string> PacketQueue::open() {
  buffer_.resize(kLargestPacket + kMessageRoom);
  socket_ = {mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC), mnl_socket_close};
  if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    return "no netlink socket: " + std::generic_category().message(errno);
  }
  if (setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) != 0) {
    setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
  }
  int error = configure(put_bind);
  // The kernel has one answer for a queue that is another's and for a missing capability.
  taken_ = error == EPERM && configure(put_nothing) == 0;
  if (error == 0) error = configure(put_settings);
  const std::string queue = "packet queue " + std::to_string(number_);
  if (taken_) return queue + " is another program's: an extension that runs already, most likely";
  if (error == EPERM) return queue + " is not permitted: it takes CAP_NET_ADMIN";
  if (error != 0) return queue + ": " + std::generic_category().message(error);
  fcntl(descriptor(), F_SETFL, O_NONBLOCK);
  return std::nullopt;
}

// One setting, and the kernel's answer to it. Only before the rules lead packets here.
int PacketQueue::configure(const std::function<void(nlmsghdr*)>& put) {
  std::array<char, 512> message{};
  nlmsghdr* header = nfq_nlmsg_put(message.data(), NFQNL_MSG_CONFIG, number_);
  header->nlmsg_flags |= NLM_F_ACK;
  header->nlmsg_seq = 1;
  put(header);
  ssize_t size = mnl_socket_sendto(socket_.get(), header, header->nlmsg_len);
  unsigned port = mnl_socket_get_portid(socket_.get());
  while (size >= 0) {
    size = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
    // Rules that a predecessor left behind may lead packets here already. The sender will send them again.
    if (size < 0 || reinterpret_cast<const nlmsghdr*>(buffer_.data())->nlmsg_type != NLMSG_ERROR) continue;
    if (mnl_cb_run(buffer_.data(), static_cast<size_t>(size), 1, port, nullptr, nullptr) >= 0) return 0;
    break;
  }
  return errno;
}

void PacketQueue::bindAgain() {
  for (auto* put : {put_bind, put_settings}) {
    std::array<char, 512> message{};
    nlmsghdr* header = nfq_nlmsg_put(message.data(), NFQNL_MSG_CONFIG, number_);
    put(header);
    mnl_socket_sendto(socket_.get(), header, header->nlmsg_len);
  }
}

int PacketQueue::descriptor() const { return mnl_socket_get_fd(socket_.get()); }

PacketQueue::Read PacketQueue::read(const std::function<void(const QueuedPacket&)>& handler) {
  ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
  if (size < 0) {
    if (errno == EAGAIN || errno == EINTR) return Read::Nothing;
    return errno == ENOBUFS ? Read::Overrun : Read::Failed;
  }
  bool packets = false;
  int left = static_cast<int>(size);
  for (auto* header = reinterpret_cast<nlmsghdr*>(buffer_.data()); mnl_nlmsg_ok(header, left);
       header = mnl_nlmsg_next(header, &left)) {
    if (header->nlmsg_type != (NFNL_SUBSYS_QUEUE << 8 | NFQNL_MSG_PACKET)) continue;
    std::array<nlattr*, NFQA_MAX + 1> attributes{};
    if (nfq_nlmsg_parse(header, attributes.data()) < 0 || attributes[NFQA_PACKET_HDR] == nullptr) continue;
    nfqnl_msg_packet_hdr packet;
    std::memcpy(&packet, mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]), sizeof packet);
    QueuedPacket queued{
        ntohl(packet.packet_id), number_of(attributes[NFQA_MARK]), number_of(attributes[NFQA_IFINDEX_OUTDEV]), {}};
    if (const nlattr* payload = attributes[NFQA_PAYLOAD]) {
      queued.bytes = {static_cast<const uint8_t*>(mnl_attr_get_payload(payload)), mnl_attr_get_payload_len(payload)};
    }
    handler(queued);
    packets = true;
  }
  return packets ? Read::Packet : Read::Other;
}

void PacketQueue::answer(uint32_t id, uint32_t mark) { decide(id, NF_REPEAT, mark); }

void PacketQueue::pass(uint32_t id, uint32_t mark) { decide(id, NF_ACCEPT, mark); }

void PacketQueue::decide(uint32_t id, uint32_t verdict, uint32_t mark) {
  std::array<char, 512> message{};
  nlmsghdr* header = nfq_nlmsg_put(message.data(), NFQNL_MSG_VERDICT, number_);
  nfq_nlmsg_verdict_put(header, static_cast<int>(id), static_cast<int>(verdict));
  nfq_nlmsg_verdict_put_mark(header, mark);
  // The kernel takes it during the call; its complaint about a packet that is gone comes to read().
  mnl_socket_sendto(socket_.get(), header, header->nlmsg_len);
}

}  // namespace orvane

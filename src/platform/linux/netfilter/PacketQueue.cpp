#include "platform/linux/netfilter/PacketQueue.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <thread>

namespace orvane {
namespace {

constexpr size_t kLargestPacket = 0xffff;
constexpr size_t kMessageRoom = 8192;  // for the netlink message around the packet
// In packets. The socket's buffer holds fewer packets than this, so the buffer becomes full before the queue does. That
// is wanted, because the kernel reports a full buffer to us, but not a full queue.
constexpr uint32_t kQueueLength = 1 << 18;
// In bytes. Enough for a burst of some ten thousand new connections, with a first packet of about 2 KiB each. The
// kernel allocates the memory only when packets arrive.
constexpr int kSocketBuffer = 64 << 20;
constexpr uint32_t kFlags = NFQA_CFG_F_GSO | NFQA_CFG_F_UID_GID;

// For how long open() tries to get a queue that another socket has.
constexpr auto kTakenTime = std::chrono::seconds(3);

void put_bind(nlmsghdr* message) { nfq_nlmsg_cfg_put_cmd(message, AF_UNSPEC, NFQNL_CFG_CMD_BIND); }

// This command had an effect in older kernels and does nothing now. It still needs the same capability as the other
// commands, so it shows whether the calling process has the capability.
void put_no_operation(nlmsghdr* message) { nfq_nlmsg_cfg_put_cmd(message, AF_UNSPEC, NFQNL_CFG_CMD_PF_UNBIND); }

void put_settings(nlmsghdr* message) {
  nfq_nlmsg_cfg_put_params(message, NFQNL_COPY_PACKET, kLargestPacket);
  nfq_nlmsg_cfg_put_qmaxlen(message, kQueueLength);
  mnl_attr_put_u32(message, NFQA_CFG_FLAGS, htonl(kFlags));
  mnl_attr_put_u32(message, NFQA_CFG_MASK, htonl(kFlags));
}

// The number in an attribute. 0 if the attribute is missing or too short.
uint32_t read_u32(const nlattr* attribute) {
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
  // The kernel returns EPERM for a missing capability and for a queue that another socket has. So if the calling
  // process has the capability, another socket has the queue. That may be the socket of an extension that ended a
  // moment ago: the extension's watchdog keeps the socket open, but not for long.
  int error = 0;
  const auto end = std::chrono::steady_clock::now() + kTakenTime;
  do {
    error = configure(put_bind);
    taken_ = error == EPERM && configure(put_no_operation) == 0;
    if (taken_) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  } while (taken_ && std::chrono::steady_clock::now() < end);
  if (error == 0) error = configure(put_settings);
  const std::string queue = "packet queue " + std::to_string(number_);
  if (taken_) return queue + " belongs to another program, most likely to an extension that runs already";
  if (error == EPERM) return queue + " needs CAP_NET_ADMIN";
  if (error != 0) return queue + ": " + std::generic_category().message(error);
  fcntl(descriptor(), F_SETFL, O_NONBLOCK);
  return std::nullopt;
}

// Sends one configuration message and waits for the kernel's answer. If an earlier process left its rules, packets may
// arrive before the answer. They are dropped, and their senders send them again. Without any verdict they would stay in
// the kernel's queue, and TCP sends no packet again while an earlier copy of it is in a queue of this machine.
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
    if (size < 0) break;
    if (reinterpret_cast<const nlmsghdr*>(buffer_.data())->nlmsg_type != NLMSG_ERROR) {
      handle(static_cast<int>(size), [this](const QueuedPacket& packet) { drop(packet.id); });
      continue;
    }
    if (mnl_cb_run(buffer_.data(), static_cast<size_t>(size), 1, port, nullptr, nullptr) >= 0) return 0;
    break;
  }
  return errno;
}

void PacketQueue::rebind() {
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
  return handle(static_cast<int>(size), handler) ? Read::Packet : Read::Other;
}

// Handles the messages in the buffer. Returns whether they had a packet for the handler.
bool PacketQueue::handle(int left, const std::function<void(const QueuedPacket&)>& handler) {
  bool packets = false;
  for (auto* header = reinterpret_cast<nlmsghdr*>(buffer_.data()); mnl_nlmsg_ok(header, left);
       header = mnl_nlmsg_next(header, &left)) {
    // An NLMSG_ERROR message answers a message of the watchdog and has that message's number; or it reports an error
    // for a verdict and has the number 0, because decide() sets no number.
    if (header->nlmsg_type == NLMSG_ERROR && header->nlmsg_seq != 0) acknowledged_ = header->nlmsg_seq;
    if (header->nlmsg_type != (NFNL_SUBSYS_QUEUE << 8 | NFQNL_MSG_PACKET)) continue;
    std::array<nlattr*, NFQA_MAX + 1> attributes{};
    if (nfq_nlmsg_parse(header, attributes.data()) < 0 || attributes[NFQA_PACKET_HDR] == nullptr) continue;
    nfqnl_msg_packet_hdr packet;
    std::memcpy(&packet, mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]), sizeof packet);
    const bool isInbound = packet.hook == NF_INET_LOCAL_IN;
    QueuedPacket queued{ntohl(packet.packet_id),
                        read_u32(attributes[NFQA_MARK]),
                        isInbound,
                        read_u32(attributes[isInbound ? NFQA_IFINDEX_INDEV : NFQA_IFINDEX_OUTDEV]),
                        attributes[NFQA_UID] == nullptr ? kNoUser : read_u32(attributes[NFQA_UID]),
                        {},
                        0};
    if (const nlattr* payload = attributes[NFQA_PAYLOAD]) {
      queued.bytes = {static_cast<const uint8_t*>(mnl_attr_get_payload(payload)), mnl_attr_get_payload_len(payload)};
    }
    // The kernel sends NFQA_CAP_LEN, the packet's length, only if the packet is longer than NFQA_PAYLOAD.
    queued.length = std::max<size_t>(queued.bytes.size(), read_u32(attributes[NFQA_CAP_LEN]));
    handler(queued);
    packets = true;
  }
  return packets;
}

void PacketQueue::repeat(uint32_t id, uint32_t mark) { decide(id, NF_REPEAT, mark); }

void PacketQueue::accept(uint32_t id, uint32_t mark) { decide(id, NF_ACCEPT, mark); }

void PacketQueue::drop(uint32_t id) { decide(id, NF_DROP, 0); }

void PacketQueue::decide(uint32_t id, uint32_t verdict, uint32_t mark) {
  std::array<char, 512> message{};
  nlmsghdr* header = nfq_nlmsg_put(message.data(), NFQNL_MSG_VERDICT, number_);
  nfq_nlmsg_verdict_put(header, static_cast<int>(id), static_cast<int>(verdict));
  nfq_nlmsg_verdict_put_mark(header, mark);
  // The kernel carries out the verdict during this call. If the packet no longer exists, read() receives the kernel's
  // error.
  mnl_socket_sendto(socket_.get(), header, header->nlmsg_len);
}

}  // namespace orvane

#include "platform/linux/SocketOwner.h"

#include <dirent.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/ProcessInformation.h"

namespace orvane {
namespace {

struct Address {
  sa_family_t family;
  uint16_t port;                    // network byte order
  std::array<uint32_t, 4> words{};  // network byte order; the first alone for IPv4
  uint32_t scope = 0;               // the interface that a link-local address belongs to
};

std::optional<Address> read_address(const sockaddr* address) {
  if (address == nullptr) return std::nullopt;
  if (address->sa_family == AF_INET) {
    sockaddr_in v4;
    std::memcpy(&v4, address, sizeof(v4));
    return Address{AF_INET, v4.sin_port, {v4.sin_addr.s_addr}};
  }
  if (address->sa_family != AF_INET6) return std::nullopt;
  sockaddr_in6 v6;
  std::memcpy(&v6, address, sizeof(v6));
  Address result{AF_INET6, v6.sin6_port, {}, v6.sin6_scope_id};
  std::memcpy(result.words.data(), &v6.sin6_addr, sizeof(v6.sin6_addr));
  if (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr)) return Address{AF_INET, v6.sin6_port, {result.words[3]}};
  return result;
}

// What the kernel knows about a socket.
struct SocketFacts {
  uint32_t inode;
  uid_t user;  // who made it
};

inet_diag_req_v2 make_request(const Address& local, const Address& remote) {
  inet_diag_req_v2 request{};
  request.sdiag_family = static_cast<uint8_t>(local.family);
  request.sdiag_protocol = IPPROTO_TCP;
  request.idiag_states = UINT32_MAX;
  request.id.idiag_sport = local.port;
  request.id.idiag_dport = remote.port;
  std::copy(local.words.begin(), local.words.end(), request.id.idiag_src);
  std::copy(remote.words.begin(), remote.words.end(), request.id.idiag_dst);
  request.id.idiag_if = std::max(local.scope, remote.scope);
  std::fill(std::begin(request.id.idiag_cookie), std::end(request.id.idiag_cookie), INET_DIAG_NOCOOKIE);
  return request;
}

// The answer's socket, if it is the one asked for: without such a connection the kernel answers with a listener.
int read_answer(const nlmsghdr* header, void* data) {
  auto& [expected, found] = *static_cast<std::pair<inet_diag_req_v2, std::optional<SocketFacts>>*>(data);
  if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || mnl_nlmsg_get_payload_len(header) < sizeof(inet_diag_msg)) {
    return MNL_CB_OK;
  }
  inet_diag_msg message;
  std::memcpy(&message, mnl_nlmsg_get_payload(header), sizeof(message));
  // A listener has no peer. A socket that nobody holds any more (the last of it is being sent, or it waits in
  // TIME_WAIT) has no inode.
  if (message.id.idiag_dport == expected.id.idiag_dport && message.id.idiag_sport == expected.id.idiag_sport &&
      message.idiag_inode != 0) {
    found = SocketFacts{message.idiag_inode, message.idiag_uid};
  }
  return MNL_CB_STOP;
}

// One question (sock_diag(7)). The socket for it is made afresh: it belongs to the network namespace that the thread is
// in now, and is not shared with another thread.
std::optional<SocketFacts> look_up_socket(const Address& local, const Address& remote) {
  std::unique_ptr<mnl_socket, int (*)(mnl_socket*)> netlink(mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC),
                                                            mnl_socket_close);
  if (!netlink || mnl_socket_bind(netlink.get(), 0, MNL_SOCKET_AUTOPID) < 0) return std::nullopt;
  alignas(nlmsghdr) std::array<char, 8192> buffer{};
  nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = SOCK_DIAG_BY_FAMILY;
  header->nlmsg_flags = NLM_F_REQUEST;
  header->nlmsg_seq = 1;
  std::pair<inet_diag_req_v2, std::optional<SocketFacts>> question(make_request(local, remote), std::nullopt);
  std::memcpy(mnl_nlmsg_put_extra_header(header, sizeof(question.first)), &question.first, sizeof(question.first));
  if (mnl_socket_sendto(netlink.get(), header, header->nlmsg_len) < 0) return std::nullopt;
  ssize_t length = mnl_socket_recvfrom(netlink.get(), buffer.data(), buffer.size());
  if (length <= 0) return std::nullopt;
  mnl_cb_run(buffer.data(), static_cast<size_t>(length), 1, mnl_socket_get_portid(netlink.get()), read_answer,
             &question);
  return question.second;
}

bool holds_socket(const ProcessInformation& process, std::string_view link) {
  int descriptor = ::openat(process.directory(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  std::unique_ptr<DIR, int (*)(DIR*)> descriptors(::fdopendir(descriptor), ::closedir);
  if (!descriptors) {
    ::close(descriptor);
    return false;
  }
  std::array<char, 64> target;  // longer links are no socket's
  while (const dirent* entry = ::readdir(descriptors.get())) {
    ssize_t length = ::readlinkat(descriptor, entry->d_name, target.data(), target.size());
    if (length > 0 && std::string_view(target.data(), static_cast<size_t>(length)) == link) return true;
  }
  return false;
}

// The processes that owned the last sockets, the latest first. A browser opens many connections in a row, and one
// process's descriptors are read in a fraction of the time that the whole table takes.
class LastOwners {
 public:
  std::vector<pid_t> get() {
    std::lock_guard lock(mutex_);
    return owners_;
  }

  void put(pid_t pid) {
    std::lock_guard lock(mutex_);
    owners_.erase(std::remove(owners_.begin(), owners_.end(), pid), owners_.end());
    owners_.insert(owners_.begin(), pid);
    if (owners_.size() > kLimit) owners_.pop_back();
  }

 private:
  static constexpr size_t kLimit = 8;
  std::mutex mutex_;
  std::vector<pid_t> owners_;
};

LastOwners& last_owners() {
  static auto* owners = new LastOwners;
  return *owners;
}

std::optional<ProcessInformation> first_holder(const std::vector<pid_t>& candidates, std::string_view link) {
  for (pid_t pid : candidates) {
    auto process = ProcessInformation::open(pid);
    if (process && holds_socket(*process, link)) return process;
  }
  return std::nullopt;
}

// All other processes: those of the socket's user first, and of these the youngest first, as most of the old ones are
// the system's services.
std::vector<pid_t> other_candidates(const std::vector<pid_t>& looked, uid_t user) {
  std::vector<pid_t> candidates = process_identifiers();
  std::erase_if(candidates, [&](pid_t pid) { return std::find(looked.begin(), looked.end(), pid) != looked.end(); });
  std::sort(candidates.begin(), candidates.end(), std::greater<>());
  std::stable_partition(candidates.begin(), candidates.end(), [user](pid_t pid) {
    struct stat status;
    return ::stat(("/proc/" + std::to_string(pid)).c_str(), &status) == 0 && status.st_uid == user;
  });
  return candidates;
}

// Children inherit sockets: the one that opened it stands above.
ProcessInformation topmost_holder(ProcessInformation holder, std::string_view link) {
  while (auto parent = ProcessInformation::open(holder.parent())) {
    if (!holds_socket(*parent, link)) break;
    holder = std::move(*parent);
  }
  return holder;
}

std::optional<ProcessInformation> find_holder(const SocketFacts& socket) {
  std::string link = "socket:[" + std::to_string(socket.inode) + "]";
  std::vector<pid_t> last = last_owners().get();
  auto holder = first_holder(last, link);
  if (!holder) holder = first_holder(other_candidates(last, socket.user), link);
  if (!holder) return std::nullopt;
  auto topmost = topmost_holder(std::move(*holder), link);
  last_owners().put(topmost.pid());
  return topmost;
}

}  // namespace

Value audit_token_of_socket_owner(const sockaddr* local, const sockaddr* remote) {
  auto own = read_address(local);
  auto peer = read_address(remote);
  if (!own || !peer || own->family != peer->family) return nullptr;
  auto socket = look_up_socket(*own, *peer);
  auto holder = socket ? find_holder(*socket) : std::nullopt;
  auto token = holder ? holder->auditToken() : std::nullopt;
  if (!token) return nullptr;
  std::array<uint8_t, sizeof(*token)> bytes;
  std::memcpy(bytes.data(), &*token, bytes.size());
  return Value::data(bytes);
}

}  // namespace orvane

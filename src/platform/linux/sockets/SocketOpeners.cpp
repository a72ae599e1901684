#include "platform/linux/sockets/SocketOpeners.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fcntl.h>
#include <mntent.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "SocketOpeners.skel.h"
#include "platform/files/Descriptor.h"
#include "platform/linux/process/BPFPrograms.h"

namespace orvane {
namespace {

// How long a record of a datagram is valid. A datagram is examined right after it is sent. Later, the same local port
// may belong to another process.
constexpr uint64_t kRecordLifetime = 5'000'000'000;  // nanoseconds

uint64_t time_since_boot() {
  timespec time{};
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

// Opens the topmost control group that can be reached: the root of the hierarchy, if it is mounted; else the first
// mounted part of the hierarchy; else, if nothing is mounted, the root of a new detached mount (fsmount(2)), which
// appears at no path.
Descriptor open_topmost_control_group() {
  std::unique_ptr<FILE, int (*)(FILE*)> mounts(::setmntent("/proc/self/mounts", "re"), ::endmntent);
  mntent mount;
  char text[4096];
  Descriptor lower;
  while (mounts && ::getmntent_r(mounts.get(), &mount, text, sizeof text) != nullptr) {
    if (std::strcmp(mount.mnt_type, "cgroup2") != 0) continue;
    Descriptor directory(::open(mount.mnt_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Only the hierarchy's root has no file cgroup.type. In a container, often only a lower part of the hierarchy is
    // mounted.
    if (directory && ::faccessat(directory.get(), "cgroup.type", F_OK, 0) != 0) return directory;
    if (directory && !lower) lower = std::move(directory);
  }
  if (lower) return lower;
  Descriptor fileSystem(::fsopen("cgroup2", FSOPEN_CLOEXEC));
  if (!fileSystem || ::fsconfig(fileSystem.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) return Descriptor();
  Descriptor root(::fsmount(fileSystem.get(), FSMOUNT_CLOEXEC, 0));
  return root ? Descriptor(::openat(root.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) : Descriptor();
}

// Writes the address in the form of the records' keys.
void write_address(const SocketAddress& from, __u32 (&to)[4]) {
  const bool v4 = from.family == AF_INET;
  if (v4) to[2] = htonl(0xffff);
  std::memcpy(v4 ? &to[3] : to, from.address.data(), v4 ? 4 : 16);
}

template <class Found, class Key>
std::optional<Found> look_up(const bpf_map* map, const Key& key) {
  Found found;
  if (::bpf_map_lookup_elem(bpf_map__fd(map), &key, &found) != 0) return std::nullopt;
  return found;
}

}  // namespace

// The BPF programs and their maps in the kernel. load(), attach() and checkOwnProcess() are called in this order, and
// return the reason if they fail.
struct SocketOpeners::Programs {
  ~Programs() { socket_openers::destroy(kernel); }
  std::optional<std::string> load();
  std::optional<std::string> attach();
  std::optional<std::string> checkOwnProcess();
  std::optional<SocketOpener> opener(uint8_t protocol, uint64_t cookie) const;

  socket_openers* kernel = nullptr;
};

std::optional<std::string> SocketOpeners::Programs::load() {
  uint64_t networkNamespace = 0;
  socklen_t size = sizeof networkNamespace;
  Descriptor any(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (::getsockopt(any.get(), SOL_SOCKET, SO_NETNS_COOKIE, &networkNamespace, &size) != 0) {
    return bpf_failure("identify the network namespace", errno);
  }
  return load_bpf_programs(kernel,
                           [&](socket_openers& opened) { opened.rodata->network_namespace = networkNamespace; });
}

std::optional<std::string> SocketOpeners::Programs::attach() {
  Descriptor group = open_topmost_control_group();
  if (!group) return bpf_failure("open the topmost control group", errno);
  const std::pair<const bpf_program*, bpf_link**> kPrograms[] = {
      {kernel->progs.connect_v4, &kernel->links.connect_v4},
      {kernel->progs.connect_v6, &kernel->links.connect_v6},
      {kernel->progs.send_v4, &kernel->links.send_v4},
      {kernel->progs.send_v6, &kernel->links.send_v6},
      {kernel->progs.record_stream, &kernel->links.record_stream},
      {kernel->progs.record_close, &kernel->links.record_close},
  };
  for (auto [program, link] : kPrograms) {
    *link = ::bpf_program__attach_cgroup(program, group.get());
    if (*link == nullptr) return bpf_failure("attach BPF programs to the topmost control group", errno);
  }
  return std::nullopt;
}

// Checks that the programs see the extension's own process, and that they record it under the identifier that /proc
// uses. In a container neither is certain. The check connects a datagram socket, which sends no packet.
std::optional<std::string> SocketOpeners::Programs::checkOwnProcess() {
  Descriptor trial(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(9);
  target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  (void)::connect(trial.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target);
  uint64_t cookie = 0;
  socklen_t size = sizeof cookie;
  ::getsockopt(trial.get(), SOL_SOCKET, SO_COOKIE, &cookie, &size);
  auto own = opener(IPPROTO_UDP, cookie);
  if (!own) return "BPF programs do not see the processes of this control group";
  // The link /proc/self is read instead of calling getpid(2), because the mounted /proc may belong to another PID
  // namespace.
  char self[16]{};
  bool known = ::readlink("/proc/self", self, sizeof self - 1) > 0;
  if (!known || std::to_string(own->process) != self) return "processes have other identifiers in BPF";
  return std::nullopt;
}

std::optional<SocketOpener> SocketOpeners::Programs::opener(uint8_t protocol, uint64_t cookie) const {
  const auto& maps = kernel->maps;
  return look_up<SocketOpener>(protocol == IPPROTO_TCP ? maps.stream_openers : maps.datagram_openers, cookie);
}

SocketOpeners::SocketOpeners() = default;
SocketOpeners::~SocketOpeners() = default;

std::optional<std::string> SocketOpeners::start() {
  programs_ = std::make_unique<Programs>();
  auto error = programs_->load();
  if (!error) error = programs_->attach();
  if (!error) error = programs_->checkOwnProcess();
  if (error) programs_.reset();
  return error;
}

std::optional<SocketOpener> SocketOpeners::opener(uint8_t protocol, uint64_t cookie) const {
  return programs_ ? programs_->opener(protocol, cookie) : std::nullopt;
}

std::optional<StreamSocket> SocketOpeners::stream(const SocketPair& pair) const {
  if (!programs_ || pair.protocol != IPPROTO_TCP || pair.local.scope != 0 || pair.remote.scope != 0) {
    return std::nullopt;
  }
  StreamRoute route{};
  route.localPort = pair.local.port;
  route.remotePort = pair.remote.port;
  write_address(pair.local, route.local);
  write_address(pair.remote, route.remote);
  return look_up<StreamSocket>(programs_->kernel->maps.streams, route);
}

std::optional<SocketFacts> SocketOpeners::sender(const SocketPair& pair) const {
  if (!programs_ || pair.protocol != IPPROTO_UDP) return std::nullopt;
  DatagramRoute route{};
  route.localPort = pair.local.port;
  route.remotePort = pair.remote.port;
  write_address(pair.remote, route.remote);
  auto cookie = look_up<uint64_t>(programs_->kernel->maps.datagrams, route);
  auto last = cookie ? opener(pair.protocol, *cookie) : std::nullopt;
  if (!last || last->time + kRecordLifetime <= time_since_boot()) return std::nullopt;
  return SocketFacts{*cookie, 0, last->user};
}

}  // namespace orvane

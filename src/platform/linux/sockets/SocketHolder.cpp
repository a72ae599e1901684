#include "platform/linux/sockets/SocketHolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace orvane {
namespace {

// Remembers at which descriptors sockets were seen, so that a process with a thousand sockets is not scanned a thousand
// times. An entry is only a hint, because descriptors are closed and reused. Keys are links ("socket:[INODE]").
// Thread-safe.
class SocketCache {
 public:
  struct Location {
    pid_t process;
    int descriptor;
  };

  std::optional<Location> find(const std::string& link) {
    std::lock_guard lock(mutex_);
    auto it = locations_.find(link);
    return it == locations_.end() ? std::nullopt : std::optional(it->second);
  }

  void put(std::string_view link, pid_t process, int descriptor) {
    std::lock_guard lock(mutex_);
    if (locations_.size() >= kLocationLimit) {
      // A scan vouches for sockets that it did not see, which needs the sockets that it saw.
      locations_.clear();
      scans_.clear();
      ++generation_;
    }
    locations_.insert_or_assign(std::string(link), Location{process, descriptor});
  }

  // Changes when the cache is cleared.
  uint64_t generation() {
    std::lock_guard lock(mutex_);
    return generation_;
  }

  // Records that all descriptors of a process were scanned, from `begin` on, unless the cache was cleared since then.
  void putScan(const ProcessInformation& process, uint64_t begin, uint64_t generation) {
    std::lock_guard lock(mutex_);
    if (generation != generation_) return;
    if (scans_.size() >= kScanLimit) scans_.clear();
    scans_.insert_or_assign(process.pid(), Scan{process.version(), begin});
  }

  // Whether `process` was scanned after its child started. A socket that the scan did not see was opened later, so the
  // child did not inherit it.
  bool wasScannedSince(const ProcessInformation& process, const ProcessInformation& child) {
    std::lock_guard lock(mutex_);
    auto it = scans_.find(process.pid());
    return it != scans_.end() && it->second.version == process.version() && it->second.begin > child.startTime();
  }

 private:
  struct Scan {
    uint32_t version;  // of the process
    uint64_t begin;    // in clock ticks since boot
  };

  static constexpr size_t kLocationLimit = 8192, kScanLimit = 256;
  std::mutex mutex_;
  std::unordered_map<std::string, Location> locations_;
  std::unordered_map<pid_t, Scan> scans_;
  uint64_t generation_ = 0;
};

uint64_t ticks_since_boot() {
  static const auto kTicks = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * kTicks + static_cast<uint64_t>(now.tv_nsec) / (1'000'000'000 / kTicks);
}

SocketCache& socket_cache() {
  static auto* cache = new SocketCache;
  return *cache;
}

// The target of a descriptor's link if it is a socket, "socket:[INODE]". Else empty.
std::string_view socket_link(int directory, const char* path, std::array<char, 64>& target) {
  ssize_t length = ::readlinkat(directory, path, target.data(), target.size());
  std::string_view link(target.data(), length > 0 ? static_cast<size_t>(length) : 0);
  return link.starts_with("socket:") ? link : std::string_view();
}

// Scans all descriptors of the process.
bool holds_socket(const ProcessInformation& process, std::string_view link) {
  int descriptor = ::openat(process.directory(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  std::unique_ptr<DIR, int (*)(DIR*)> descriptors(::fdopendir(descriptor), ::closedir);
  if (!descriptors) {
    ::close(descriptor);
    return false;
  }
  std::array<char, 64> target;
  uint64_t begin = ticks_since_boot(), generation = socket_cache().generation();
  bool holds = false;
  while (const dirent* entry = ::readdir(descriptors.get())) {
    std::string_view found = socket_link(descriptor, entry->d_name, target);
    if (found.empty()) continue;
    if (found == link) holds = true;
    socket_cache().put(found, process.pid(), static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
  }
  socket_cache().putScan(process, begin, generation);
  return holds;
}

bool holds_at(const ProcessInformation& process, int descriptor, std::string_view link) {
  std::array<char, 64> target;
  return socket_link(process.directory(), ("fd/" + std::to_string(descriptor)).c_str(), target) == link;
}

std::optional<ProcessInformation> cached_holder(const std::string& link) {
  auto location = socket_cache().find(link);
  auto process = location ? ProcessInformation::open(location->process) : std::nullopt;
  if (!process || !holds_at(*process, location->descriptor, link)) return std::nullopt;
  return process;
}

// The processes that held the sockets found last, the latest first. A browser opens many connections in a row, and
// scanning one process takes a fraction of the time of scanning all. Thread-safe.
class RecentHolders {
 public:
  std::vector<SocketCache::Location> get() {
    std::lock_guard lock(mutex_);
    return holders_;
  }

  void put(const SocketCache::Location& holder) {
    std::lock_guard lock(mutex_);
    std::erase_if(holders_, [&](const auto& each) { return each.process == holder.process; });
    holders_.insert(holders_.begin(), holder);
    if (holders_.size() > kLimit) holders_.pop_back();
  }

 private:
  static constexpr size_t kLimit = 8;
  std::mutex mutex_;
  std::vector<SocketCache::Location> holders_;
};

RecentHolders& recent_holders() {
  static auto* holders = new RecentHolders;
  return *holders;
}

// Looks next to the descriptors of recent sockets: the kernel assigns the lowest free descriptor, so a new socket often
// has the number of the previous one or a number close to it.
std::optional<ProcessInformation> holder_near(const std::vector<SocketCache::Location>& recent,
                                              const std::string& link) {
  for (const auto& [pid, descriptor] : recent) {
    auto process = ProcessInformation::open(pid);
    for (int offset : {0, 1, 2, 3, -1}) {
      if (!process || !holds_at(*process, descriptor + offset, link)) continue;
      socket_cache().put(link, pid, descriptor + offset);
      return process;
    }
  }
  return std::nullopt;
}

std::optional<ProcessInformation> first_holder(const std::vector<pid_t>& candidates, std::string_view link) {
  for (pid_t pid : candidates) {
    auto process = ProcessInformation::open(pid);
    if (process && holds_socket(*process, link)) return process;
  }
  return std::nullopt;
}

// All processes except the excluded ones: those of the socket's user first, and the highest identifiers first, since
// most processes with low ones are system services.
std::vector<pid_t> other_candidates(const std::vector<pid_t>& excluded, uid_t user) {
  std::vector<pid_t> candidates = process_identifiers();
  std::erase_if(candidates,
                [&](pid_t pid) { return std::find(excluded.begin(), excluded.end(), pid) != excluded.end(); });
  std::sort(candidates.begin(), candidates.end(), std::greater<>());
  std::stable_partition(candidates.begin(), candidates.end(), [user](pid_t pid) {
    struct stat status;
    return ::stat(("/proc/" + std::to_string(pid)).c_str(), &status) == 0 && status.st_uid == user;
  });
  return candidates;
}

// The topmost ancestor that also holds the socket. Children inherit sockets, so that one opened it. `isNew`: no scan
// saw the socket before this search.
ProcessInformation topmost_holder(ProcessInformation holder, std::string_view link, bool isNew) {
  while (auto parent = ProcessInformation::open(holder.parent())) {
    if ((isNew && socket_cache().wasScannedSince(*parent, holder)) || !holds_socket(*parent, link)) break;
    holder = std::move(*parent);
  }
  return holder;
}

}  // namespace

std::optional<ProcessInformation> find_socket_holder(const SocketFacts& socket) {
  // A closed socket has no inode: its last bytes are being sent, or it is in TIME_WAIT.
  if (socket.inode == 0) return std::nullopt;
  std::string link = "socket:[" + std::to_string(socket.inode) + "]";
  const auto recent = recent_holders().get();
  std::vector<pid_t> recentProcesses;
  recentProcesses.reserve(recent.size());
  for (const auto& each : recent) recentProcesses.push_back(each.process);
  bool isNew = !socket_cache().find(link);
  auto holder = cached_holder(link);
  if (!holder) holder = holder_near(recent, link);
  if (!holder) holder = first_holder(recentProcesses, link);
  if (!holder) holder = first_holder(other_candidates(recentProcesses, socket.user), link);
  if (!holder) return std::nullopt;
  auto topmost = topmost_holder(std::move(*holder), link, isNew);
  auto location = socket_cache().find(link);
  if (location && location->process == topmost.pid()) recent_holders().put(*location);
  return topmost;
}

Value token_value(const std::optional<audit_token_t>& token) {
  if (!token) return nullptr;
  std::array<uint8_t, sizeof(*token)> bytes;
  std::memcpy(bytes.data(), &*token, bytes.size());
  return Value::data(bytes);
}

}  // namespace orvane

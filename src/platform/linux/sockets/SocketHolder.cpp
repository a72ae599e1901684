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

// Where sockets were seen when descriptors were last read: a process with a thousand sockets is not read a thousand
// times. Only a hint, as descriptors are closed and given anew.
class SeenSockets {
 public:
  struct Place {
    pid_t process;
    int descriptor;
  };

  std::optional<Place> find(const std::string& link) {
    std::lock_guard lock(mutex_);
    auto it = places_.find(link);
    return it == places_.end() ? std::nullopt : std::optional(it->second);
  }

  void put(std::string_view link, pid_t process, int descriptor) {
    std::lock_guard lock(mutex_);
    if (places_.size() >= kLimit) {
      // With the places goes what "was not seen then" could be told by.
      places_.clear();
      readings_.clear();
      ++clearings_;
    }
    places_.insert_or_assign(std::string(link), Place{process, descriptor});
  }

  uint64_t clearings() {
    std::lock_guard lock(mutex_);
    return clearings_;
  }

  // That all descriptors of a process have been read, and none of them forgotten since.
  void putReading(const ProcessInformation& process, uint64_t begin, uint64_t clearings) {
    std::lock_guard lock(mutex_);
    if (clearings != clearings_) return;
    if (readings_.size() >= kReadingsLimit) readings_.clear();
    readings_.insert_or_assign(process.pid(), Reading{process.version(), begin});
  }

  // Whether that was when `child` had begun already: what was not seen then, the child has not inherited.
  bool readSince(const ProcessInformation& process, const ProcessInformation& child) {
    std::lock_guard lock(mutex_);
    auto it = readings_.find(process.pid());
    return it != readings_.end() && it->second.version == process.version() && it->second.begin > child.startTime();
  }

 private:
  struct Reading {
    uint32_t version;
    uint64_t begin;  // clock ticks since boot
  };

  static constexpr size_t kLimit = 8192, kReadingsLimit = 256;
  std::mutex mutex_;
  std::unordered_map<std::string, Place> places_;
  std::unordered_map<pid_t, Reading> readings_;
  uint64_t clearings_ = 0;
};

uint64_t ticks_since_boot() {
  static const auto kTicks = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * kTicks + static_cast<uint64_t>(now.tv_nsec) / (1'000'000'000 / kTicks);
}

SeenSockets& seen_sockets() {
  static auto* sockets = new SeenSockets;
  return *sockets;
}

// A link that stands for a socket, "socket:[INODE]". Empty for others, which are longer or differently spelled.
std::string_view socket_link(int directory, const char* path, std::array<char, 64>& target) {
  ssize_t length = ::readlinkat(directory, path, target.data(), target.size());
  std::string_view link(target.data(), length > 0 ? static_cast<size_t>(length) : 0);
  return link.starts_with("socket:") ? link : std::string_view();
}

bool holds_socket(const ProcessInformation& process, std::string_view link) {
  int descriptor = ::openat(process.directory(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  std::unique_ptr<DIR, int (*)(DIR*)> descriptors(::fdopendir(descriptor), ::closedir);
  if (!descriptors) {
    ::close(descriptor);
    return false;
  }
  std::array<char, 64> target;
  uint64_t begin = ticks_since_boot(), clearings = seen_sockets().clearings();
  bool holds = false;
  while (const dirent* entry = ::readdir(descriptors.get())) {
    std::string_view found = socket_link(descriptor, entry->d_name, target);
    if (found.empty()) continue;
    if (found == link) holds = true;
    seen_sockets().put(found, process.pid(), static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
  }
  seen_sockets().putReading(process, begin, clearings);
  return holds;
}

bool holds_at(const ProcessInformation& process, int descriptor, std::string_view link) {
  std::array<char, 64> target;
  return socket_link(process.directory(), ("fd/" + std::to_string(descriptor)).c_str(), target) == link;
}

std::optional<ProcessInformation> holder_seen(const std::string& link) {
  auto place = seen_sockets().find(link);
  auto process = place ? ProcessInformation::open(place->process) : std::nullopt;
  if (!process || !holds_at(*process, place->descriptor, link)) return std::nullopt;
  return process;
}

// The processes that owned the last sockets, the latest first. A browser opens many connections in a row, and one
// process's descriptors are read in a fraction of the time that the whole table takes.
class LastOwners {
 public:
  std::vector<SeenSockets::Place> get() {
    std::lock_guard lock(mutex_);
    return owners_;
  }

  void put(const SeenSockets::Place& owner) {
    std::lock_guard lock(mutex_);
    std::erase_if(owners_, [&](const auto& each) { return each.process == owner.process; });
    owners_.insert(owners_.begin(), owner);
    if (owners_.size() > kLimit) owners_.pop_back();
  }

 private:
  static constexpr size_t kLimit = 8;
  std::mutex mutex_;
  std::vector<SeenSockets::Place> owners_;
};

LastOwners& last_owners() {
  static auto* owners = new LastOwners;
  return *owners;
}

// Descriptors are given out from the lowest free one on: a new socket's is mostly that of the last one, or next to it.
std::optional<ProcessInformation> holder_nearby(const std::vector<SeenSockets::Place>& last, const std::string& link) {
  for (const auto& [pid, descriptor] : last) {
    auto process = ProcessInformation::open(pid);
    for (int near : {0, 1, 2, 3, -1}) {
      if (!process || !holds_at(*process, descriptor + near, link)) continue;
      seen_sockets().put(link, pid, descriptor + near);
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

// Children inherit sockets: the one that opened it stands above. `isNew`: it was in nobody's hands when descriptors
// were last read.
ProcessInformation topmost_holder(ProcessInformation holder, std::string_view link, bool isNew) {
  while (auto parent = ProcessInformation::open(holder.parent())) {
    if ((isNew && seen_sockets().readSince(*parent, holder)) || !holds_socket(*parent, link)) break;
    holder = std::move(*parent);
  }
  return holder;
}

}  // namespace

std::optional<ProcessInformation> find_socket_holder(const SocketFacts& socket) {
  // What nobody holds any more (the last of it is being sent, or it waits in TIME_WAIT) is in no table.
  if (socket.inode == 0) return std::nullopt;
  std::string link = "socket:[" + std::to_string(socket.inode) + "]";
  const auto last = last_owners().get();
  std::vector<pid_t> lastProcesses;
  lastProcesses.reserve(last.size());
  for (const auto& each : last) lastProcesses.push_back(each.process);
  bool isNew = !seen_sockets().find(link);
  auto holder = holder_seen(link);
  if (!holder) holder = holder_nearby(last, link);
  if (!holder) holder = first_holder(lastProcesses, link);
  if (!holder) holder = first_holder(other_candidates(lastProcesses, socket.user), link);
  if (!holder) return std::nullopt;
  auto topmost = topmost_holder(std::move(*holder), link, isNew);
  auto place = seen_sockets().find(link);
  if (place && place->process == topmost.pid()) last_owners().put(*place);
  return topmost;
}

Value token_value(const std::optional<audit_token_t>& token) {
  if (!token) return nullptr;
  std::array<uint8_t, sizeof(*token)> bytes;
  std::memcpy(bytes.data(), &*token, bytes.size());
  return Value::data(bytes);
}

}  // namespace orvane

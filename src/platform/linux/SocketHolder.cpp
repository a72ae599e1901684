#include "platform/linux/SocketHolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
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
    std::string descriptor;  // its path in the process's directory
  };

  std::optional<Place> find(const std::string& link) {
    std::lock_guard lock(mutex_);
    auto it = places_.find(link);
    return it == places_.end() ? std::nullopt : std::optional(it->second);
  }

  void put(std::string_view link, pid_t process, const char* descriptor) {
    std::lock_guard lock(mutex_);
    if (places_.size() >= kLimit) places_.clear();
    places_.insert_or_assign(std::string(link), Place{process, std::string("fd/") + descriptor});
  }

 private:
  static constexpr size_t kLimit = 8192;
  std::mutex mutex_;
  std::unordered_map<std::string, Place> places_;
};

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
  bool holds = false;
  while (const dirent* entry = ::readdir(descriptors.get())) {
    std::string_view found = socket_link(descriptor, entry->d_name, target);
    if (found.empty()) continue;
    if (found == link) holds = true;
    seen_sockets().put(found, process.pid(), entry->d_name);
  }
  return holds;
}

std::optional<ProcessInformation> holder_seen(const std::string& link) {
  auto place = seen_sockets().find(link);
  auto process = place ? ProcessInformation::open(place->process) : std::nullopt;
  std::array<char, 64> target;
  if (!process || socket_link(process->directory(), place->descriptor.c_str(), target) != link) return std::nullopt;
  return process;
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

}  // namespace

std::optional<ProcessInformation> find_socket_holder(const SocketFacts& socket) {
  // What nobody holds any more (the last of it is being sent, or it waits in TIME_WAIT) is in no table.
  if (socket.inode == 0) return std::nullopt;
  std::string link = "socket:[" + std::to_string(socket.inode) + "]";
  std::vector<pid_t> last = last_owners().get();
  auto holder = holder_seen(link);
  if (!holder) holder = first_holder(last, link);
  if (!holder) holder = first_holder(other_candidates(last, socket.user), link);
  if (!holder) return std::nullopt;
  auto topmost = topmost_holder(std::move(*holder), link);
  last_owners().put(topmost.pid());
  return topmost;
}

Value token_value(const std::optional<audit_token_t>& token) {
  if (!token) return nullptr;
  std::array<uint8_t, sizeof(*token)> bytes;
  std::memcpy(bytes.data(), &*token, bytes.size());
  return Value::data(bytes);
}

}  // namespace orvane

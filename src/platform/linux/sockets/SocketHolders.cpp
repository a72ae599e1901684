#include "platform/linux/sockets/SocketHolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/linux/base/ThreadBudget.h"
#include "platform/linux/process/UserProcesses.h"

namespace orvane {
namespace {

using Clock = std::chrono::steady_clock;

// Remembers in which process, and at which descriptor, each socket was seen, so that a process with a thousand sockets
// is not scanned a thousand times. An entry is only a hint, because descriptors are closed and reused. The key of a
// socket is the text of the descriptor's link in /proc/pid/fd, "socket:[INODE]".
class SocketCache {
 public:
  struct Location {
    pid_t process;
    int descriptor;
  };

  std::optional<Location> find(const std::string& link) const {
    auto it = locations_.find(link);
    return it == locations_.end() ? std::nullopt : std::optional(it->second);
  }

  void put(std::string_view link, pid_t process, int descriptor) {
    if (locations_.size() >= kLocationLimit) {
      // A complete scan of a process records the location of every socket that the process holds. So if a socket has no
      // recorded location, the scanned process did not hold it. After the locations are cleared, this conclusion would
      // be wrong, so no earlier scan counts as complete any more.
      locations_.clear();
      for (auto& [pid, scan] : scans_) scan.isComplete = false;
      ++generation_;
    }
    locations_.insert_or_assign(std::string(link), Location{process, descriptor});
  }

  // A number that changes when the locations are cleared.
  uint64_t generation() const { return generation_; }

  // Records a scan of a process. The scan began at `begin`, in clock ticks since boot.
  void putScan(const ProcessInformation& process, uint64_t begin, bool isComplete) {
    if (scans_.size() >= kScanLimit) scans_.clear();
    scans_.insert_or_assign(process.pid(), Scan{process.version(), begin, ++scanCount_, isComplete});
  }

  // Whether `process` was completely scanned after its child `child` had started. If `process` holds a socket that this
  // scan did not see, `process` got the socket after the child had started, so the child did not inherit the socket.
  bool wasScannedSince(const ProcessInformation& process, const ProcessInformation& child) const {
    auto it = scans_.find(process.pid());
    return it != scans_.end() && it->second.version == process.version() && it->second.isComplete &&
           it->second.begin > child.startTime();
  }

  // The number of the last scan of a process. Later scans have greater numbers. 0 for a process that was not scanned.
  uint64_t lastScan(pid_t process) const {
    auto it = scans_.find(process);
    return it == scans_.end() ? 0 : it->second.number;
  }

 private:
  struct Scan {
    uint32_t version;  // ProcessInformation::version()
    uint64_t begin;    // in clock ticks since boot
    uint64_t number;
    bool isComplete;  // all descriptors were read, and locations_ was not cleared since
  };

  static constexpr size_t kLocationLimit = 8192, kScanLimit = 1024;
  std::unordered_map<std::string, Location> locations_;
  std::unordered_map<pid_t, Scan> scans_;
  uint64_t generation_ = 0, scanCount_ = 0;
};

uint64_t ticks_since_boot() {
  static const auto kTicks = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * kTicks + static_cast<uint64_t>(now.tv_nsec) / (1'000'000'000 / kTicks);
}

// The target of a descriptor's link, "socket:[INODE]", if the descriptor is a socket. Else empty.
std::string_view socket_link(int directory, const char* path, std::array<char, 64>& target) {
  ssize_t length = ::readlinkat(directory, path, target.data(), target.size());
  std::string_view link(target.data(), length > 0 ? static_cast<size_t>(length) : 0);
  return link.starts_with("socket:") ? link : std::string_view();
}

bool holds_at(const ProcessInformation& process, int descriptor, std::string_view link) {
  std::array<char, 64> target;
  return socket_link(process.directory(), ("fd/" + std::to_string(descriptor)).c_str(), target) == link;
}

// What is kept for one user between searches for this user's sockets.
struct User {
  // The processes in which the last searches found a socket, the latest first, each with the socket's descriptor. A
  // browser opens many connections in a row, so its process is often in this list. A scan of the listed processes takes
  // a fraction of the time of a scan of all processes.
  std::vector<SocketCache::Location> recent;
  ThreadCredit credit;  // for the searches

  void put(const SocketCache::Location& holder) {
    std::erase_if(recent, [&](const auto& each) { return each.process == holder.process; });
    recent.insert(recent.begin(), holder);
    if (recent.size() > kRecentLimit) recent.pop_back();
  }

  static constexpr size_t kRecentLimit = 4;
};

// The sockets whose holder a recent search did not find, by cookie.
class FailedSearches {
 public:
  bool contains(uint64_t cookie, Clock::time_point now) const {
    auto it = times_.find(cookie);
    return it != times_.end() && now - it->second < kLifetime;
  }

  void put(uint64_t cookie, Clock::time_point now) {
    if (times_.size() >= kLimit) times_.clear();
    times_.insert_or_assign(cookie, now);
  }

 private:
  static constexpr auto kLifetime = std::chrono::seconds(2);
  static constexpr size_t kLimit = 4096;
  std::unordered_map<uint64_t, Clock::time_point> times_;
};

// One search. It uses and updates `cache`, which all searches share, and `user`, which the searches for one user's
// sockets share.
class Search {
 public:
  Search(SocketCache& cache, User& user, const SocketFacts& socket, std::chrono::nanoseconds time)
      : cache_(cache), user_(user), link_("socket:[" + std::to_string(socket.inode) + "]"), budget_(time) {
    isNew_ = !cache_.find(link_);
  }

  // Tests the descriptor at which this socket was last seen. Then takes each process in `recent`, and tests the
  // descriptor of the last socket that was found in that process, and the descriptor numbers next to it. The kernel
  // assigns the lowest free descriptor, so a new socket often has the number of the previous socket or one close to it.
  std::optional<ProcessInformation> quickHolder() {
    auto location = cache_.find(link_);
    auto process = location ? ProcessInformation::open(location->process) : std::nullopt;
    if (process && holds_at(*process, location->descriptor, link_)) return process;
    for (const auto& [pid, descriptor] : user_.recent) {
      process = ProcessInformation::open(pid);
      for (int offset : {0, 1, 2, 3, -1}) {
        if (!process || !holds_at(*process, descriptor + offset, link_)) continue;
        cache_.put(link_, pid, descriptor + offset);
        return process;
      }
    }
    return std::nullopt;
  }

  std::optional<ProcessInformation> recentHolder() {
    for (const auto& each : user_.recent) {
      if (auto process = scan(each.process)) return process;
    }
    return std::nullopt;
  }

  // Searches first the processes that were not scanned yet, beginning with the process that started last: most
  // processes that started early are services. Then searches the other processes, beginning with the process whose last
  // scan is the oldest. So if a search runs out of time, the next search begins with the processes that were not
  // reached.
  std::optional<ProcessInformation> holderAmong(const std::vector<pid_t>& candidates) {
    std::vector<std::pair<uint64_t, pid_t>> scanned;
    for (auto pid = candidates.rbegin(); pid != candidates.rend() && !budget_.isSpent(); ++pid) {
      if (uint64_t last = cache_.lastScan(*pid)) {
        scanned.emplace_back(last, *pid);
      } else if (auto process = scan(*pid)) {
        return process;
      }
    }
    std::sort(scanned.begin(), scanned.end());
    for (const auto& each : scanned) {
      if (auto process = scan(each.second)) return process;
    }
    return std::nullopt;
  }

  // Goes up from `holder` as long as the parent holds the socket, too. Children inherit sockets, so the topmost of
  // these processes opened the socket.
  ProcessInformation topmost(ProcessInformation holder) {
    while (auto parent = ProcessInformation::open(holder.parent())) {
      // Avoids reading the parent's descriptors. If no scan saw the socket before this search, but the parent was
      // scanned after its child had started, the child did not inherit the socket, so it opened the socket itself.
      if ((isNew_ && cache_.wasScannedSince(*parent, holder)) || !holds(*parent)) break;
      holder = std::move(*parent);
    }
    auto location = cache_.find(link_);
    if (location && location->process == holder.pid()) user_.put(*location);
    return holder;
  }

  const ThreadBudget& budget() const { return budget_; }

 private:
  std::optional<ProcessInformation> scan(pid_t pid) {
    auto process = budget_.isSpent() ? std::nullopt : ProcessInformation::open(pid);
    return process && holds(*process) ? std::move(process) : std::nullopt;
  }

  // Whether the process holds the socket. The function stops when the search's time is spent; a result of false may
  // then be wrong.
  bool holds(const ProcessInformation& process) {
    Descriptor descriptors(::openat(process.directory(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptors) return false;
    std::array<char, 64> target;
    alignas(dirent64) std::array<char, 1024> entries;  // room for about 40 entries, so that the time is checked often
    uint64_t begin = ticks_since_boot(), generation = cache_.generation();
    bool holds = false;
    ssize_t size = -1;
    while (!budget_.isSpent() && (size = ::getdents64(descriptors.get(), entries.data(), entries.size())) > 0) {
      const dirent64* entry;
      for (ssize_t offset = 0; offset < size; offset += entry->d_reclen) {
        entry = reinterpret_cast<const dirent64*>(&entries[static_cast<size_t>(offset)]);
        std::string_view found = socket_link(descriptors.get(), entry->d_name, target);
        if (found.empty()) continue;
        if (found == link_) holds = true;
        cache_.put(found, process.pid(), static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
      }
    }
    cache_.putScan(process, begin, size == 0 && generation == cache_.generation());
    return holds;
  }

  SocketCache& cache_;
  User& user_;
  const std::string link_;
  const ThreadBudget budget_;
  bool isNew_;
};

}  // namespace

struct SocketHolders::Implementation {
  explicit Implementation(const Limits& chosen) : limits(chosen) {}

  User& account(uid_t user, Clock::time_point now);
  std::optional<ProcessInformation> holder(Search& search, uid_t user);

  const Limits limits;
  SocketCache cache;
  UserProcesses processes;
  FailedSearches failed;
  std::unordered_map<uid_t, User> users;
};

User& SocketHolders::Implementation::account(uid_t user, Clock::time_point now) {
  constexpr size_t kUserLimit = 1024;
  if (users.size() >= kUserLimit && users.count(user) == 0) users.clear();
  return users.try_emplace(user, User{{}, ThreadCredit(limits.burst, now)}).first->second;
}

std::optional<ProcessInformation> SocketHolders::Implementation::holder(Search& search, uid_t user) {
  if (auto recent = search.recentHolder()) return recent;
  processes.update(std::min(limits.processes, search.budget().left() / 2));
  const auto& byUser = processes.byUser();
  // Root's processes come second: if a user's process may not be dumped (prctl(2), PR_SET_DUMPABLE), its files in /proc
  // belong to root, so the user's process is listed under root.
  for (uid_t first : {user, uid_t{0}}) {
    auto own = byUser.find(first);
    if (own == byUser.end()) continue;
    if (auto found = search.holderAmong(own->second)) return found;
  }
  for (const auto& [other, candidates] : byUser) {
    if (other == user || other == 0) continue;
    if (auto found = search.holderAmong(candidates)) return found;
  }
  return std::nullopt;
}

SocketHolders::SocketHolders() : SocketHolders(Limits()) {}
SocketHolders::SocketHolders(const Limits& limits) : implementation_(std::make_unique<Implementation>(limits)) {}
SocketHolders::~SocketHolders() = default;

std::optional<ProcessInformation> SocketHolders::find(const SocketFacts& socket) {
  auto& [limits, cache, processes, failed, users] = *implementation_;
  auto now = Clock::now();
  // A socket without an inode is closed (its last bytes are being sent, or it is in TIME_WAIT), so no process holds it.
  if (socket.inode == 0 || failed.contains(socket.cookie, now)) return std::nullopt;
  User& user = implementation_->account(socket.user, now);
  Search search(cache, user, socket, limits.descriptors + 2 * limits.processes);
  const bool hasCredit = !user.credit.isSpent(now);
  auto holder = search.quickHolder();
  if (!holder && hasCredit) {
    holder = implementation_->holder(search, socket.user);
    if (!holder) failed.put(socket.cookie, now);
  }
  if (holder && hasCredit) holder = search.topmost(std::move(*holder));
  user.credit.use(search.budget().used());
  return holder;
}

Value token_value(const std::optional<audit_token_t>& token) {
  if (!token) return nullptr;
  std::array<uint8_t, sizeof(*token)> bytes;
  std::memcpy(bytes.data(), &*token, bytes.size());
  return Value::data(bytes);
}

}  // namespace orvane

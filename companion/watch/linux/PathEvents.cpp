#include "companion/watch/PathEvents.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "platform/files/Descriptor.h"

namespace orvane {
namespace {

// The events to watch for in a folder. kEventsOfFolder is for the folder of a watched file. If this folder does not
// exist, kEventsAbove is for the nearest existing folder above it, in which the next folder of the file's path may
// appear. kOwnEvents is for all folders above a watched folder.
constexpr uint32_t kOwnEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kEventsAbove = kOwnEvents | IN_CREATE | IN_MOVED_TO;
constexpr uint32_t kEventsOfFolder = kEventsAbove | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_ATTRIB;

// Events that concern the watched folder itself and have no name.
constexpr uint32_t kEventsWithoutName = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

// How often armOne() tries if folders keep appearing and vanishing. After the last attempt, the next event causes a new
// call of armOne().
constexpr int kAttempts = 4;

class InotifyEvents final : public PathEvents {
 public:
  explicit InotifyEvents(std::vector<std::string> paths) : paths_(std::move(paths)) {}
  int descriptor() const override { return inotify_.get(); }
  std::string fault() const override;
  bool read() override;
  void arm() override;

 private:
  void armOne(const std::string& path);
  int watchFolder(const std::filesystem::path& child, uint32_t events);

  const std::vector<std::string> paths_;
  Descriptor inotify_;
  int error_ = 0;                                              // the errno of a system call that has reached a limit
  std::unordered_map<int, std::vector<std::string>> watched_;  // watch descriptor -> names to watch in its folder
};

std::string InotifyEvents::fault() const {
  switch (error_) {
    case 0:
      return "";
    case EMFILE:
      return "the limit fs.inotify.max_user_instances is reached";
    case ENOSPC:
      return "the limit fs.inotify.max_user_watches is reached";
    default:
      return std::strerror(error_);
  }
}

void InotifyEvents::arm() {
  error_ = 0;
  if (!inotify_) inotify_ = Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_) {
    error_ = errno;
    return;
  }
  auto before = std::exchange(watched_, {});
  for (const std::string& path : paths_) armOne(path);
  for (const auto& [watch, names] : before) {
    if (watched_.count(watch) == 0) inotify_rm_watch(inotify_.get(), watch);
  }
}

void InotifyEvents::armOne(const std::string& path) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::filesystem::path child = path;
    int watch = watchFolder(child, kEventsOfFolder);
    while (watch < 0 && child.has_relative_path()) {
      child = child.parent_path();
      watch = watchFolder(child, kEventsAbove);
    }
    if (watch < 0) return;
    watched_[watch].push_back(child.filename());
    for (auto above = child.parent_path(); above.has_relative_path(); above = above.parent_path()) {
      if (const int own = watchFolder(above, kOwnEvents); own >= 0) watched_[own];
    }
    // If the next folder of the path appeared before the watch on its parent began, no event reports this folder. So
    // try again, to watch this folder.
    std::error_code ignored;
    if (child == path || !std::filesystem::exists(child, ignored)) return;
  }
}

int InotifyEvents::watchFolder(const std::filesystem::path& child, uint32_t events) {
  // Files in the same folder share a watch. IN_MASK_ADD adds these events to the events of an existing watch.
  const int watch = inotify_add_watch(inotify_.get(), child.parent_path().c_str(), events | IN_MASK_ADD);
  // Other errors concern the folder itself: it does not exist, or this process may not read it.
  if (watch < 0 && (errno == ENOSPC || errno == ENOMEM)) error_ = errno;
  return watch;
}

bool InotifyEvents::read() {
  bool isRelevant = false;
  alignas(inotify_event) std::array<char, 4096> buffer;
  const ssize_t size = ::read(inotify_.get(), buffer.data(), buffer.size());
  for (ssize_t at = 0; at < size;) {
    inotify_event event{};
    std::memcpy(&event, buffer.data() + at, sizeof event);
    const char* name = buffer.data() + at + sizeof event;
    at += static_cast<ssize_t>(sizeof event + event.len);
    auto watched = watched_.find(event.wd);
    if ((event.mask & IN_Q_OVERFLOW) != 0) isRelevant = true;
    if (watched == watched_.end()) continue;  // the event is from a removed watch
    const auto& names = watched->second;
    isRelevant = isRelevant || (event.mask & kEventsWithoutName) != 0 ||
                 (event.len > 0 &&
                  std::any_of(names.begin(), names.end(), [&](const auto& each) { return isWatched(name, each); }));
  }
  if (isRelevant) arm();
  return isRelevant;
}

}  // namespace

std::unique_ptr<PathEvents> PathEvents::create(std::vector<std::string> paths) {
  return std::make_unique<InotifyEvents>(std::move(paths));
}

}  // namespace orvane

#include "companion/keeper/PathWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

namespace orvane {
namespace {

// Where the next folder on the way to the file may come; and where the file itself is.
constexpr uint32_t kAbove = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kBeside = kAbove | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_ATTRIB;

// What is about a folder itself.
constexpr uint32_t kWithoutName = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

// A folder that comes and goes while it is being looked for is met again at the next event.
constexpr int kAttempts = 4;

bool is_there(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

PathWatch::PathWatch(std::vector<std::string> paths)
    : paths_(std::move(paths)), inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  arm();
}

void PathWatch::arm() {
  if (!inotify_) return;
  auto before = std::exchange(watched_, {});
  for (const std::string& path : paths_) armOne(path);
  for (const auto& [watch, names] : before) {
    if (watched_.count(watch) == 0) inotify_rm_watch(inotify_.get(), watch);
  }
}

void PathWatch::armOne(const std::string& path) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::filesystem::path child = path;
    int watch = watchFolder(child, kBeside);
    while (watch < 0 && child.has_relative_path()) {
      child = child.parent_path();
      watch = watchFolder(child, kAbove);
    }
    if (watch < 0) return;
    watched_[watch].push_back(child.filename());
    // A folder that was made before the watch on the one above it is one to watch itself.
    if (child == path || !is_there(child)) return;
  }
}

int PathWatch::watchFolder(const std::filesystem::path& child, uint32_t events) {
  // A folder that holds several of the files has one watch: their events together.
  return inotify_add_watch(inotify_.get(), child.parent_path().c_str(), events | IN_MASK_ADD);
}

bool PathWatch::happened() {
  bool ours = false;
  alignas(inotify_event) std::array<char, 4096> buffer;
  for (ssize_t size; (size = read(inotify_.get(), buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < size;) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char* name = buffer.data() + at + sizeof event;
      at += static_cast<ssize_t>(sizeof event + event.len);
      auto watched = watched_.find(event.wd);
      if ((event.mask & IN_Q_OVERFLOW) != 0) ours = true;
      if (watched == watched_.end()) continue;  // of a watch that has been given up
      const auto& names = watched->second;
      ours = ours || (event.mask & kWithoutName) != 0 ||
             (event.len > 0 && std::find(names.begin(), names.end(), name) != names.end());
    }
  }
  if (ours) arm();
  return ours;
}

}  // namespace orvane

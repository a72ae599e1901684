#include <sys/event.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace {

// A watched descriptor, and the file that it referred to when the watch began.
struct Watch {
  struct kevent event;
  dev_t device;
  ino_t inode;
  bool isOpen(struct stat& status) const {
    return fstat(static_cast<int>(event.ident), &status) == 0 && status.st_dev == device && status.st_ino == inode;
  }
};

// By the queue and the inotify watch. Closing a descriptor ends its watch, but the entry stays.
std::map<std::pair<int, int>, Watch> watches;
std::map<int, std::map<int, struct kevent>> pending_events;  // by the queue and the watch

uint32_t notes_of(const inotify_event& event, const struct stat& status) {
  if ((event.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)) != 0) return NOTE_WRITE;
  if (event.len > 0) return 0;  // a folder's event does not report writes into its files
  if ((event.mask & IN_MODIFY) != 0) return NOTE_WRITE;
  if ((event.mask & IN_MOVE_SELF) != 0) return NOTE_RENAME;
  // The removal of an open file is reported as a change of its number of links.
  if ((event.mask & (IN_ATTRIB | IN_DELETE_SELF)) != 0) return status.st_nlink == 0 ? NOTE_DELETE : NOTE_ATTRIB;
  return 0;
}

}  // namespace

int kqueue() { return inotify_init1(IN_NONBLOCK | IN_CLOEXEC); }

int kevent(int queue, const struct kevent* changes, int changesCount, struct kevent* events, int eventsCount,
           const timespec*) {
  for (int i = 0; i < changesCount; ++i) {
    struct stat status = {};
    if (fstat(static_cast<int>(changes[i].ident), &status) != 0) return -1;
    const std::string path = "/proc/self/fd/" + std::to_string(changes[i].ident);
    const int watch = inotify_add_watch(
        queue, path.c_str(), IN_CREATE | IN_DELETE | IN_MOVE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF);
    if (watch < 0) return -1;
    watches[{queue, watch}] = {changes[i], status.st_dev, status.st_ino};
  }
  // At most one event for each watch, as kqueue has. Reads one buffer: if there is more, the queue stays readable.
  auto& pending = pending_events[queue];
  alignas(inotify_event) std::array<char, 4096> buffer;
  const ssize_t size = eventsCount > 0 ? read(queue, buffer.data(), buffer.size()) : 0;
  inotify_event event{};
  for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(sizeof event + event.len)) {
    std::memcpy(&event, buffer.data() + at, sizeof event);
    const auto found = watches.find({queue, event.wd});
    struct stat status = {};
    if (found == watches.end() || !found->second.isOpen(status)) continue;
    const uint32_t notes = found->second.event.fflags & notes_of(event, status);
    if (notes == 0) continue;
    const auto [reported, isNew] = pending.try_emplace(event.wd, found->second.event);
    reported->second.fflags = isNew ? notes : reported->second.fflags | notes;
  }
  int count = 0;
  for (; count < eventsCount && !pending.empty(); pending.erase(pending.begin()))
    events[count++] = pending.begin()->second;
  return count;
}

#include "companion/watch/PathEvents.h"

#include <fcntl.h>
#include <sys/event.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include "platform/files/Descriptor.h"

namespace orvane {
namespace {

using Path = std::filesystem::path;

constexpr uint32_t kGone = NOTE_DELETE | NOTE_RENAME | NOTE_REVOKE;

std::string numbers(std::initializer_list<int64_t> values) {
  std::string text;
  for (const int64_t value : values) text += std::to_string(value) + ' ';
  return text;
}

// What identifies the file or folder at a path, and what identifies its version. Empty if there is none.
struct Identity {
  std::string file, version;
};
Identity identity_of(const Path& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return {};
  const timespec& changed = status.st_ctimespec;
  const std::string file = numbers({static_cast<int64_t>(status.st_dev), static_cast<int64_t>(status.st_ino)});
  return {file, file + numbers({status.st_size, changed.tv_sec, changed.tv_nsec})};
}

// Has an open descriptor for each file and each folder on the paths. An event of a folder does not say which of its
// files has appeared. So this class compares the versions of the watched files then.
class KqueueEvents final : public PathEvents {
 public:
  explicit KqueueEvents(std::vector<std::string> paths) : paths_(std::move(paths)), versions_(versions()) {}
  int descriptor() const override { return queue_.get(); }
  std::string fault() const override { return error_ == 0 ? "" : std::strerror(error_); }

  bool read() override {
    constexpr timespec kNoWait{};
    std::array<struct kevent, 16> events;
    bool isRelevant = false;
    const int count = kevent(queue_.get(), nullptr, 0, events.data(), static_cast<int>(events.size()), &kNoWait);
    for (int i = 0; i < count; ++i) {
      const struct kevent& event = events[static_cast<size_t>(i)];
      const bool isFolder = event.udata != nullptr;
      isRelevant = isRelevant || !isFolder || (event.fflags & kGone) != 0;
    }
    // First watch, then compare: so no change is missed between the two steps.
    arm();
    const std::string before = std::exchange(versions_, versions());
    return isRelevant || versions_ != before;
  }

  void arm() override {
    error_ = 0;
    if (!queue_) queue_ = Descriptor(kqueue());
    if (!queue_) {
      error_ = errno;
      return;
    }
    fcntl(queue_.get(), F_SETFD, FD_CLOEXEC);
    auto before = std::exchange(watched_, {});
    for (const Path& path : filesAndFolders()) {
      std::string file = identity_of(path).file;
      const auto known = before.find(path);
      if (known != before.end() && known->second.file == file) {
        watched_.insert(before.extract(known));
      } else {
        watch(path, std::move(file));
      }
    }
  }

 private:
  struct Watched {
    std::string file;
    Descriptor descriptor;  // closing it ends the watch
  };

  void watch(const Path& path, std::string file) {
    // O_EVTONLY: the descriptor does not keep the volume from being unmounted. O_NONBLOCK: opening a pipe must not
    // wait.
    Descriptor descriptor(open(path.c_str(), O_EVTONLY | O_CLOEXEC | O_NONBLOCK));
    if (!descriptor && (errno == EMFILE || errno == ENFILE)) error_ = errno;
    if (!descriptor) return;
    std::error_code ignored;
    const bool isFolder = std::filesystem::is_directory(path, ignored);
    struct kevent event = {};
    EV_SET(&event, static_cast<uintptr_t>(descriptor.get()), EVFILT_VNODE, EV_ADD | EV_CLEAR,
           kGone | NOTE_WRITE | NOTE_EXTEND | NOTE_ATTRIB, 0, isFolder ? this : nullptr);
    if (kevent(queue_.get(), &event, 1, nullptr, 0, nullptr) == 0) {
      watched_[path] = {std::move(file), std::move(descriptor)};
    } else {
      error_ = errno;
    }
  }

  // The files that the paths stand for. The files of a pattern exist; the others may be missing.
  std::set<Path> files() const {
    std::set<Path> files;
    for (const Path path : paths_) {
      const std::string name = path.filename();
      std::error_code ignored;
      if (!name.starts_with('*')) {
        files.insert(path);
        continue;
      }
      for (const auto& entry : std::filesystem::directory_iterator(path.parent_path(), ignored)) {
        if (isWatched(entry.path().filename().native(), name)) files.insert(entry.path());
      }
    }
    return files;
  }

  // The files, and all folders above them.
  std::set<Path> filesAndFolders() const {
    std::set<Path> all = files();
    for (const Path path : paths_) {
      for (Path folder = path.parent_path(); folder.has_relative_path(); folder = folder.parent_path())
        all.insert(folder);
    }
    return all;
  }

  std::string versions() const {
    std::string text;
    for (const Path& file : files()) text += file.native() + ' ' + identity_of(file).version + '\n';
    return text;
  }

  const std::vector<std::string> paths_;
  std::string versions_;  // of all files
  Descriptor queue_;
  int error_ = 0;  // the errno of a system call that has reached a limit
  std::map<Path, Watched> watched_;
};

}  // namespace

std::unique_ptr<PathEvents> PathEvents::create(std::vector<std::string> paths) {
  return std::make_unique<KqueueEvents>(std::move(paths));
}

}  // namespace orvane

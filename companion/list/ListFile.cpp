#include "companion/list/ListFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>
#include <utility>

#include "companion/text/AccessGroup.h"
#include "companion/text/Input.h"
#include "platform/linux/base/Descriptor.h"
#include "platform/linux/base/Files.h"

namespace orvane {
namespace {

constexpr mode_t kModeOfNew = 0660;
// Never to execute, nor a set-ID bit: whoever put the file there would have root make a program of it.
constexpr mode_t kPermissions = 0666;

// The list's place, taken apart: everything is done relative to the open folder, so that it is one folder throughout.
struct Place {
  std::string path;     // of the list
  std::string folder;   // its path
  std::string name;     // of the list in the folder
  std::string newName;  // of what becomes the list: one name alone, as the lock lets one writer at it at a time
};

Place place_of(const std::string& path) {
  Place place{path, ".", path, ""};
  if (size_t slash = path.rfind('/'); slash != std::string::npos) {
    place.folder = path.substr(0, slash + 1);
    place.name = path.substr(slash + 1);
  }
  if (place.name.empty()) throw FileError("not a file: " + in_quotes(path) + ": name the list's file");
  place.newName = "." + place.name + ".new";
  return place;
}

std::string advice_on(int error, const Place& place) {
  switch (error) {
    case EACCES:
    case EPERM:
      if (place.path == kListPath) return access_advice();
      return "check the rights of the file and its folder";
    case ENOENT:
    case ENOTDIR:
      if (place.path == kListPath) return "is orvane-se installed? Or name another file with --list";
      return "check the path";
    case ENOSPC:
    case EDQUOT:
      return "the list is as it was: make room on the disk, and run the command again";
    case ELOOP:
      return "it is a symbolic link: name the file itself";
    default:
      return "the list is as it was: check its file system";
  }
}

FileError file_error(const char* what, const Place& place, int error) {
  return FileError(std::string(what) + " the list: " + in_quotes(place.path) + ": " + std::strerror(error) + ": " +
                   advice_on(error, place));
}

Descriptor open_folder(const Place& place) {
  Descriptor folder(::open(place.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) throw file_error("cannot reach", place, errno);
  return folder;
}

// Another orvanectl has the lock for the blink of an eye, or for a second with a very large list.
void lock(const Descriptor& folder, const Place& place) {
  using namespace std::chrono;
  constexpr seconds kPatience(60);
  constexpr milliseconds kPause(5);
  const auto end = steady_clock::now() + kPatience;
  while (::flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) throw file_error("cannot lock", place, errno);
    if (steady_clock::now() > end)
      throw FileError("cannot lock the list: " + in_quotes(place.path) +
                      ": another program has had it locked for a minute: see with lslocks which, and try again");
    std::this_thread::sleep_for(kPause);
  }
}

ListVersion version_of(const struct stat& status) {
  char text[128];
  std::snprintf(text, sizeof text, "%jx-%jx-%jx-%jx.%lx", static_cast<uintmax_t>(status.st_dev),
                static_cast<uintmax_t>(status.st_ino), static_cast<uintmax_t>(status.st_size),
                static_cast<uintmax_t>(status.st_ctim.tv_sec), static_cast<unsigned long>(status.st_ctim.tv_nsec));
  return text;
}

struct stat status_of(const Descriptor& file, const Place& place) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw file_error("cannot read", place, errno);
  return status;
}

// More bytes than anyone's list has, and more lines than there is memory for; the extension takes a million names.
void check_size(std::string_view text, const Place& place) {
  constexpr std::ptrdiff_t kMostLines = std::ptrdiff_t{1} << 22;
  if (text.size() > kLargestInput || std::count(text.begin(), text.end(), '\n') > kMostLines)
    throw FileError("too large a list: " + in_quotes(place.path) +
                    ": at most 256 MiB and four million lines: take some of it away");
}

// The list's file in the open folder: its text, version and mode. All of no file where there is none.
struct FileContent {
  std::string text;
  ListVersion version;
  mode_t mode = kModeOfNew;
};

std::string read_text(const Descriptor& file, const Place& place) {
  constexpr size_t kChunk = size_t{1} << 20;
  std::string text;
  for (;;) {
    const size_t before = text.size();
    text.resize(before + kChunk);
    const ssize_t got = ::read(file.get(), text.data() + before, kChunk);
    const int error = errno;
    text.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
    if (got == 0 || text.size() > kLargestInput) break;
    if (got < 0 && error != EINTR) throw file_error("cannot read", place, error);
  }
  check_size(text, place);
  return text;
}

FileContent read_file(const Descriptor& folder, const Place& place) {
  // Without O_NOFOLLOW a member of the group could have root copy what only root may read. Without O_NONBLOCK a pipe of
  // that name would be waited for.
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  // An editor may be writing it in place.
  constexpr int kAttempts = 5;
  FileContent content;
  for (int attempt = 1;; ++attempt) {
    Descriptor file(::openat(folder.get(), place.name.c_str(), kFlags));
    if (!file && errno == ENOENT) return {};
    if (!file) throw file_error("cannot read", place, errno);
    const struct stat status = status_of(file, place);
    if (!S_ISREG(status.st_mode))
      throw FileError("cannot read the list: " + in_quotes(place.path) + ": it is no file: name another with --list");
    // As with a symbolic link: what is read would be somebody else's, and what is written the group's.
    if (status.st_nlink > 1)
      throw FileError("cannot read the list: " + in_quotes(place.path) +
                      ": the file has other names, too (hard links): make a copy the list");
    content = {read_text(file, place), version_of(status), status.st_mode & kPermissions};
    if (attempt == kAttempts || version_of(status_of(file, place)) == content.version) return content;
  }
}

// Empty where there is no file.
ListVersion current_version(const Descriptor& folder, const Place& place) {
  struct stat status {};
  if (::fstatat(folder.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return version_of(status);
  if (errno != ENOENT) throw file_error("cannot read", place, errno);
  return {};
}

// The file that becomes the list. Unless it has, nothing is left of it.
class NewFile {
 public:
  NewFile(const Descriptor& folder, const Place& place) : folder_(folder), place_(place), file_(create()) {}
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile() {
    if (!isList_) ::unlinkat(folder_.get(), place_.newName.c_str(), 0);
  }

  // Returns once it is all on the disk.
  void write(std::string_view text, mode_t mode) {
    // A folder that gives what is made in it to its group means the group to have it, whatever a member's umask is.
    if ((status_of(folder_, place_).st_mode & S_ISGID) != 0) mode |= kModeOfNew;
    if (!write_all(file_.get(), text) || ::fchmod(file_.get(), mode) != 0 || ::fsync(file_.get()) != 0)
      throw file_error("cannot change", place_, errno);
  }

  // Puts it in the list's place, on the disk, too.
  ListVersion becomeList() {
    if (::renameat(folder_.get(), place_.newName.c_str(), folder_.get(), place_.name.c_str()) != 0)
      throw file_error("cannot change", place_, errno);
    isList_ = true;
    if (::fsync(folder_.get()) != 0)
      throw FileError("cannot be sure of the list: " + in_quotes(place_.path) + ": " + std::strerror(errno) +
                      ": it is changed, but may be the old one after a loss of power: check the disk");
    return version_of(status_of(file_, place_));
  }

 private:
  Descriptor create() {
    // What a predecessor left that was killed. The lock is ours, so nobody is using it.
    if (::unlinkat(folder_.get(), place_.newName.c_str(), 0) != 0 && errno != ENOENT)
      throw file_error("cannot change", place_, errno);
    Descriptor file(::openat(folder_.get(), place_.newName.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kModeOfNew));
    if (!file) throw file_error("cannot change", place_, errno);
    return file;
  }

  const Descriptor& folder_;
  const Place& place_;
  Descriptor file_;
  bool isList_ = false;
};

}  // namespace

StoredList read_list(const std::string& path) {
  const Place place = place_of(path);
  const FileContent content = read_file(open_folder(place), place);
  return {BlockList::parse(content.text), content.version};
}

ListVersion list_version(const std::string& path) {
  const Place place = place_of(path);
  return current_version(open_folder(place), place);
}

ListVersion edit_list(const std::string& path, const std::function<bool(BlockList&)>& edit) {
  const Place place = place_of(path);
  const Descriptor folder = open_folder(place);
  lock(folder, place);
  constexpr int kAttempts = 10;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    FileContent content = read_file(folder, place);
    BlockList list = BlockList::parse(std::exchange(content.text, {}));
    if (!edit(list)) return content.version;
    const std::string text = list.text();
    check_size(text, place);
    NewFile file(folder, place);
    file.write(text, content.mode);
    // Who edits the list by hand asks for no lock. What was saved meanwhile counts.
    if (current_version(folder, place) == content.version) return file.becomeList();
  }
  throw FileError("cannot change the list: " + in_quotes(path) +
                  ": another program keeps changing it: stop that first");
}

}  // namespace orvane

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
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "companion/list/Places.h"
#include "companion/text/AccessGroup.h"
#include "companion/text/Input.h"
#include "platform/files/Descriptor.h"
#include "platform/files/Files.h"

namespace orvane {
namespace {

constexpr mode_t kModeOfNew = 0660;
// The permissions that a new version of the file takes from the old one. Execute and set-ID bits are not among them.
// Otherwise a member of the list's group could set these bits on the list, and the next edit by root would make a
// set-ID program that belongs to root.
constexpr mode_t kPermissions = 0666;

// The path of the list, or of a file beside it. Each operation opens the folder once and finds all files in this open
// folder. So the operation uses only one folder, even if another folder gets the same path meanwhile.
struct Place {
  std::string path;
  std::string folder;
  std::string name;  // in the folder
  bool isMachines() const { return folder == places().list.substr(0, places().list.rfind('/') + 1); }
};

Place place_of(const std::string& path) {
  Place place{path, ".", path};
  if (size_t slash = path.rfind('/'); slash != std::string::npos) {
    place.folder = path.substr(0, slash + 1);
    place.name = path.substr(slash + 1);
  }
  if (place.name.empty()) throw FileError("not a file: " + in_quotes(path) + ": name the list's file");
  return place;
}

std::string advice_on(int error, const Place& place) {
  switch (error) {
    case EACCES:
    case EPERM:
      if (place.isMachines()) return access_advice();
      return "check the rights of the file and its folder";
    case ENOENT:
    case ENOTDIR:
      if (place.isMachines()) return kMissingFolderAdvice;
      return "check the path";
    case ENOSPC:
    case EDQUOT:
      return "the file is unchanged: make room on the disk, and run the command again";
    case ELOOP:
      return "it is a symbolic link: put the file itself in its place, or name that file";
    default:
      return "the file is unchanged: check its file system";
  }
}

FileError file_error(const char* what, const Place& place, int error) {
  return FileError(std::string(what) + " the file: " + in_quotes(place.path) + ": " + std::strerror(error) + ": " +
                   advice_on(error, place));
}

Descriptor open_folder(const Place& place) {
  Descriptor folder(::open(place.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) throw file_error("cannot reach", place, errno);
  return folder;
}

// Takes the folder's lock. Waits for it at most a minute, which is enough: an orvanectl process holds the lock for some
// milliseconds, or for a second if the list is very large.
void lock(const Descriptor& folder, const Place& place) {
  using namespace std::chrono;
  constexpr seconds kTimeout(60);
  constexpr milliseconds kPause(5);
  const auto end = steady_clock::now() + kTimeout;
  while (::flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) throw file_error("cannot lock", place, errno);
    if (steady_clock::now() > end)
      throw FileError("cannot lock the file: " + in_quotes(place.path) +
                      ": another program has held the lock for a minute: " + kFindLockHolder + ", and try again");
    std::this_thread::sleep_for(kPause);
  }
}

// The time of the last change. The member has another name on macOS.
template <class Status>
timespec time_of_change(const Status& status) {
  if constexpr (requires { status.st_ctimespec; }) {
    return status.st_ctimespec;
  } else {
    return status.st_ctim;
  }
}

ListVersion version_of(const struct stat& status) {
  const timespec changed = time_of_change(status);
  char text[128];
  std::snprintf(text, sizeof text, "%jx-%jx-%jx-%jx.%lx", static_cast<uintmax_t>(status.st_dev),
                static_cast<uintmax_t>(status.st_ino), static_cast<uintmax_t>(status.st_size),
                static_cast<uintmax_t>(changed.tv_sec), static_cast<unsigned long>(changed.tv_nsec));
  return text;
}

struct stat status_of(const Descriptor& file, const Place& place) {
  struct stat status = {};
  if (::fstat(file.get(), &status) != 0) throw file_error("cannot read", place, errno);
  return status;
}

// These limits bound the memory that a list takes. They are far above what a list of a million names needs.
void check_size(std::string_view text, const Place& place) {
  constexpr std::ptrdiff_t kMostLines = std::ptrdiff_t{1} << 22;
  if (text.size() > kLargestInput || std::count(text.begin(), text.end(), '\n') > kMostLines)
    throw FileError("too large a file: " + in_quotes(place.path) +
                    ": at most 256 MiB and four million lines: remove some");
}

// What was read from the file. The default values describe a missing file.
struct FileContent : ListFileContent {
  mode_t mode = kModeOfNew;
};

std::string read_text(const Descriptor& file, size_t probableSize, const Place& place) {
  std::optional<std::string> text = read_up_to(file.get(), kLargestInput + 1, probableSize);
  if (!text) throw file_error("cannot read", place, errno);
  check_size(*text, place);
  return *std::move(text);
}

FileContent read_file(const Descriptor& folder, const Place& place) {
  // O_NOFOLLOW: a member of the list's group can put a symbolic link in place of the list. If orvanectl followed the
  // link when root edits the list, it would copy a file that only root may read into a file that the group may read.
  // O_NONBLOCK: opening a pipe must not wait.
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  // Read again if the file changed during the read, because an editor may be writing into it.
  constexpr int kAttempts = 5;
  FileContent content;
  for (int attempt = 1;; ++attempt) {
    Descriptor file(::openat(folder.get(), place.name.c_str(), kFlags));
    if (!file && errno == ENOENT) return {};
    if (!file) throw file_error("cannot read", place, errno);
    const struct stat status = status_of(file, place);
    if (!S_ISREG(status.st_mode))
      throw FileError("cannot read the file: " + in_quotes(place.path) +
                      ": it is not a regular file: put a file in its place");
    // A hard link could also give the list's name to a file that only root may read.
    if (status.st_nlink > 1)
      throw FileError("cannot read the file: " + in_quotes(place.path) +
                      ": the file has other names (hard links): replace it by a copy");
    content = {{read_text(file, static_cast<size_t>(status.st_size), place), version_of(status),
                Moment(std::chrono::seconds(status.st_mtime))},
               static_cast<mode_t>(status.st_mode & kPermissions)};
    if (attempt == kAttempts || version_of(status_of(file, place)) == content.version) return content;
  }
}

// The version that the file has now. Empty if there is no file.
ListVersion current_version(const Descriptor& folder, const Place& place) {
  struct stat status = {};
  if (::fstatat(folder.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return version_of(status);
  if (errno != ENOENT) throw file_error("cannot read", place, errno);
  return {};
}

// The mode of the new file: that of the old one. In a folder with the set-group-ID bit the group may always write, even
// if the umask of a member removed that right from the old file.
mode_t mode_for(const Descriptor& folder, const Place& place, mode_t oldMode) {
  return (status_of(folder, place).st_mode & S_ISGID) != 0 ? oldMode | kModeOfNew : oldMode;
}

// Gives the new file the list's name. Returns the version of this file.
ListVersion make_current(FileReplacement& file, const Place& place) {
  if (auto error = file.renameTo(place.name)) throw file_error("cannot change", place, error.value());
  if (auto error = file.syncFolder())
    throw FileError("cannot write the folder of the file to the disk: " + in_quotes(place.path) + ": " +
                    error.message() +
                    ": the file has changed, but a loss of power may bring the old one back: check the disk");
  struct stat status = {};
  if (::fstat(file.descriptor(), &status) != 0) throw file_error("cannot read", place, errno);
  return version_of(status);
}

// The name of the new file is fixed, because the lock allows one writer.
FileReplacement new_file(const Descriptor& folder, const Place& place) {
  return FileReplacement(folder.get(), "." + place.name + ".new");
}

void write(FileReplacement& file, std::string_view text, const Descriptor& folder, const Place& place, mode_t oldMode) {
  check_size(text, place);
  if (auto error = file.write(text, mode_for(folder, place, oldMode)))
    throw file_error("cannot change", place, error.value());
}

}  // namespace

StoredList read_list(const std::string& path) {
  const ListFileContent content = read_list_file(path);
  return {BlockList::parse(content.text), content.version};
}

ListFileContent read_list_file(const std::string& path) {
  const Place place = place_of(path);
  return read_file(open_folder(place), place);
}

ListVersion list_version(const std::string& path) {
  const Place place = place_of(path);
  return current_version(open_folder(place), place);
}

std::string list_versions(std::initializer_list<std::string> paths) {
  std::string versions;
  try {
    for (const std::string& path : paths) versions.append(list_version(path)).append(" ");
  } catch (const FileError& error) {
    return error.what();
  }
  return versions;
}

std::string read_list_text(const std::string& path) {
  const Place place = place_of(path);
  return read_file(open_folder(place), place).text;
}

void replace_list_text(const std::string& path, std::string_view text) {
  const Place place = place_of(path);
  const Descriptor folder = open_folder(place);
  FileReplacement file = new_file(folder, place);
  write(file, text, folder, place, kModeOfNew);
  make_current(file, place);
}

ListVersion edit_list_text(const std::string& path,
                           const std::function<std::optional<std::string>(std::string)>& edit) {
  const Place place = place_of(path);
  const Descriptor folder = open_folder(place);
  lock(folder, place);
  constexpr int kAttempts = 10;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    FileContent content = read_file(folder, place);
    const std::optional<std::string> text = edit(std::exchange(content.text, {}));
    if (!text) return content.version;
    FileReplacement file = new_file(folder, place);
    write(file, *text, folder, place, content.mode);
    // Editors take no lock. If an editor has saved the file since read_file() above, start again with the new version.
    if (current_version(folder, place) == content.version) return make_current(file, place);
  }
  throw FileError("cannot change the file: " + in_quotes(path) +
                  ": another program keeps changing it: stop that first");
}

ListVersion edit_list(const std::string& path, const std::function<bool(BlockList&)>& edit) {
  return edit_list_text(path, [&](std::string text) {
    BlockList list = BlockList::parse(std::exchange(text, {}));
    return edit(list) ? std::optional(list.text()) : std::nullopt;
  });
}

}  // namespace orvane

#include "platform/linux/process/ProcessInformation.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "platform/files/Files.h"
#include "platform/linux/base/Text.h"

namespace orvane {
namespace {

// Limit for each file in /proc/pid except `mounts` and `mountinfo`. Of these files, only `cgroup` can be longer,
// because a process may choose long names for its control groups. The text of `cgroup` is then cut off.
constexpr size_t kFileLimit = size_t{64} * 1024;
// The limit for `mounts` and `mountinfo` is larger, because a host with many containers has a thousand mounts.
constexpr size_t kMountsLimit = size_t{256} * 1024;
constexpr uint32_t kNobodyLoggedIn = UINT32_MAX;
constexpr uint32_t kExiting = 0x4;  // PF_EXITING in the kernel: a flag in field 9 of /proc/pid/stat
constexpr std::string_view kDeleted = " (deleted)";

// Removes the first word from the text and returns it. Empty at the end of the text.
std::string_view take_word(std::string_view& text) {
  size_t start = text.find_first_not_of(" \t\n");
  if (start == std::string_view::npos) return {};
  size_t end = text.find_first_of(" \t\n", start);
  std::string_view word = text.substr(start, end == std::string_view::npos ? end : end - start);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end);
  return word;
}

// The first two numbers of a line of /proc/pid/status such as "Uid:\t1000\t1000\t1000\t1000".
struct RealAndEffective {
  uint32_t real, effective;
};

std::optional<RealAndEffective> parse_status_line(std::string_view status, std::string_view label) {
  size_t start = status.find(label);
  if (start == std::string_view::npos) return std::nullopt;
  std::string_view rest = status.substr(start + label.size());
  auto real = parse_number<uint32_t>(take_word(rest));
  auto effective = parse_number<uint32_t>(take_word(rest));
  if (!real || !effective) return std::nullopt;
  return RealAndEffective{*real, *effective};
}

// The beginning of a short file. Empty when the file cannot be read.
std::string_view read_start(int directory, const char* name, std::array<char, 4096>& buffer) {
  Descriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW));
  ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
  return {buffer.data(), count > 0 ? static_cast<size_t>(count) : 0};
}

uint32_t read_audit_number(int directory, const char* name) {
  std::array<char, 4096> buffer;
  std::string_view rest = read_start(directory, name, buffer);
  return parse_number<uint32_t>(take_word(rest)).value_or(kNobodyLoggedIn);
}

// The target of a link; empty on failure.
std::string read_link(int directory, const char* name) {
  std::array<char, PATH_MAX> target;
  ssize_t length = ::readlinkat(directory, name, target.data(), target.size());
  return {target.data(), length > 0 ? static_cast<size_t>(length) : 0};
}

// The path without the suffix that the kernel adds when the file was removed.
std::string_view without_suffix(std::string_view path) {
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return path;
}

struct FileNumbers {
  dev_t device;
  ino_t inode;
};

// Asks only for what the kernel has cached, because a file system that a user's program serves (FUSE) could otherwise
// make the calling process wait.
std::optional<FileNumbers> examine(int directory, const char* name, int flags = 0) {
  struct statx status;
  if (::statx(directory, name, AT_STATX_DONT_SYNC | flags, STATX_INO, &status) != 0) return std::nullopt;
  return FileNumbers{makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

// Opens a file, without its content, if the kernel has its path cached (openat2(2), RESOLVE_CACHED). EAGAIN means that
// the path is not cached, or that somebody mounted or renamed a file at the same moment, so the call is repeated.
Descriptor open_cached(int folder, const char* path) {
  constexpr int kTries = 64;
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_CACHED;
  long file = -1;
  for (int i = 0; i < kTries && file < 0; ++i) {
    file = ::syscall(SYS_openat2, folder, path, &how, sizeof how);
    if (file < 0 && errno != EAGAIN) break;
  }
  return Descriptor(static_cast<int>(file));
}

// Zombie or dead.
bool has_ended(char state) { return state == 'Z' || state == 'X' || state == 'x'; }

}  // namespace

std::optional<ProcessStat> parse_process_stat(std::string_view text) {
  size_t bracket = text.rfind(')');
  if (bracket == std::string_view::npos) return std::nullopt;
  std::string_view rest = text.substr(bracket + 1);
  std::string_view state = take_word(rest);  // field 3
  auto parent = parse_number<pid_t>(take_word(rest));
  for (int field = 5; field < 9; ++field) take_word(rest);
  auto flags = parse_number<uint32_t>(take_word(rest));
  for (int field = 10; field < 22; ++field) take_word(rest);
  auto startTime = parse_number<uint64_t>(take_word(rest));
  if (state.size() != 1 || !parent || !flags || !startTime) return std::nullopt;
  return ProcessStat{state[0], *parent, *startTime, (*flags & kExiting) != 0};
}

std::optional<ProcessInformation> ProcessInformation::open(pid_t pid, const std::string& processTable) {
  if (pid <= 0) return std::nullopt;
  std::string path = processTable + "/" + std::to_string(pid);
  Descriptor directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return std::nullopt;
  auto text = read_file_start_at(directory.get(), "stat", kFileLimit, Links::Refuse);
  auto stat = text ? parse_process_stat(*text) : std::nullopt;
  if (!stat || has_ended(stat->state)) return std::nullopt;
  return ProcessInformation(pid, std::move(directory), *stat);
}

std::optional<audit_token_t> ProcessInformation::auditToken() const {
  std::array<char, 4096> buffer;  // the lines that are parsed below are at the start of the file
  std::string_view status = read_start(directory(), "status", buffer);
  auto user = parse_status_line(status, "\nUid:");
  auto group = parse_status_line(status, "\nGid:");
  constexpr std::string_view kState = "\nState:\t";
  size_t state = status.find(kState);
  if (!user || !group || (state < status.size() - kState.size() && has_ended(status[state + kState.size()]))) {
    return std::nullopt;
  }
  return audit_token_t{{read_audit_number(directory(), "loginuid"), user->effective, group->effective, user->real,
                        group->real, static_cast<uint32_t>(pid_), read_audit_number(directory(), "sessionid"),
                        version()}};
}

// After the process has ended, its open directory is empty, even if the pid is used again. So statx(2) and readlink(2)
// both fail for `exe`.
bool ProcessInformation::runs(const Executable* file) const {
  if (file != nullptr && file->inode != 0) {
    auto now = examine(directory(), "exe");
    return now && now->device == file->device && now->inode == file->inode;
  }
  std::string path = read_link(directory(), "exe");
  return !path.empty() && (file == nullptr || without_suffix(path) == file->path);
}

std::optional<Executable> ProcessInformation::executable() const {
  std::string path = read_link(directory(), "exe");
  if (path.empty()) return std::nullopt;
  std::string without(without_suffix(path));
  auto status = examine(directory(), "exe");
  if (!status) return Executable{std::move(without), 0, 0};
  // The kernel adds " (deleted)" to the path of a removed file. But if a file with the whole path exists and is the
  // executable, the suffix is a part of its name.
  Executable named{std::move(path), status->device, status->inode};
  if (named.path != without && !is_visible_here(named)) named.path = std::move(without);
  return named;
}

std::string ProcessInformation::controlGroups() const {
  return read_file_start_at(directory(), "cgroup", kFileLimit, Links::Refuse).value_or("");
}

std::string ProcessInformation::mounts() const {
  return read_file_start_at(directory(), "mounts", kMountsLimit, Links::Refuse).value_or("");
}

std::optional<std::string> ProcessInformation::flatpakInformation() const {
  const Descriptor root(::openat(directory(), "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const Descriptor file = root ? open_cached(root.get(), ".flatpak-info") : Descriptor();
  if (root && !file && errno == EAGAIN) return std::nullopt;
  if (!file || !isOnTmpfs(file.get())) return "";
  const std::string path = "/proc/self/fd/" + std::to_string(file.get());
  return read_file_start_at(AT_FDCWD, path.c_str(), kFileLimit, Links::Follow).value_or("");
}

// Whether a file that the process sees is on a tmpfs. fstatfs(2) is not used, because it asks the file system, which
// may never answer.
bool ProcessInformation::isOnTmpfs(int file) const {
  struct statx status;
  if (::statx(file, "", AT_STATX_DONT_SYNC | AT_EMPTY_PATH, STATX_MNT_ID, &status) != 0) return false;
  const auto text = read_file_start_at(directory(), "mountinfo", kMountsLimit, Links::Refuse).value_or("");
  // A line begins with the mount's number. The file system's type comes after the first " - " (proc(5)).
  const std::string begin = "\n" + std::to_string(status.stx_mnt_id) + " ";
  const size_t line = ("\n" + text).find(begin);
  const size_t separator = line == std::string::npos ? line : text.find(" - ", line);
  return separator != std::string::npos && text.compare(separator, 9, " - tmpfs ") == 0;
}

bool is_visible_here(const Executable& executable) {
  const Descriptor file = open_cached(AT_FDCWD, executable.path.c_str());
  const auto found = file ? examine(file.get(), "", AT_EMPTY_PATH) : std::nullopt;
  return found && found->device == executable.device && found->inode == executable.inode;
}

std::optional<audit_token_t> audit_token_of_process(pid_t pid) {
  auto process = ProcessInformation::open(pid);
  return process ? process->auditToken() : std::nullopt;
}

std::optional<audit_token_t> read_audit_token(const Value& value) {
  audit_token_t token;
  const auto bytes = value.asData();
  if (bytes.size() != sizeof token) return std::nullopt;
  std::memcpy(&token, bytes.data(), sizeof token);
  return token;
}

void each_process(const std::string& processTable, const std::function<bool(pid_t)>& use) {
  std::unique_ptr<DIR, int (*)(DIR*)> table(::opendir(processTable.c_str()), ::closedir);
  while (const dirent* entry = table ? ::readdir(table.get()) : nullptr) {
    if (auto pid = parse_number<pid_t>(entry->d_name); pid && !use(*pid)) return;
  }
}

std::vector<pid_t> process_identifiers(const std::string& processTable) {
  std::vector<pid_t> identifiers;
  each_process(processTable, [&](pid_t pid) {
    identifiers.push_back(pid);
    return true;
  });
  return identifiers;
}

}  // namespace orvane

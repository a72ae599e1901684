#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Process.h"
#include "platform/Value.h"
#include "platform/files/Descriptor.h"

namespace orvane {

// The file that a process runs.
struct Executable {
  std::string path;  // absolute; the former path if the file was replaced or removed
  // Both 0 if the calling process may not examine the file: for example, a FUSE file system refuses everyone, even
  // root, except the user who mounted it.
  dev_t device;
  ino_t inode;
};

// Whether the calling process, too, finds this file at the executable's path. For an executable in the /usr of a
// container or a snap, it finds another file or none, because these have a /usr of their own.
//
// Looks only at the folders and files that the kernel has cached (openat2(2), RESOLVE_CACHED), because a network file
// system or a user's own (FUSE) may never answer. While the program runs, the kernel keeps its file and folders cached.
bool is_visible_here(const Executable& executable);

// Some fields of /proc/pid/stat.
struct ProcessStat {
  char state;
  pid_t parent;
  uint64_t startTime;  // clock ticks since boot
  bool isEnding;       // whether the process has begun to end
};

// Parses the text of /proc/pid/stat. Nothing when the text is cut off. The second field is the program's name in
// parentheses; the name may contain parentheses, spaces and digits.
std::optional<ProcessStat> parse_process_stat(std::string_view text);

// A running process in the process table (proc(5)). The object keeps the process's directory open. So all functions are
// about the same process, and return nothing once this process has ended, even if its pid is used again. Not
// thread-safe.
class ProcessInformation {
 public:
  // Nothing when the process does not exist or is a zombie.
  static std::optional<ProcessInformation> open(pid_t pid, const std::string& processTable = "/proc");

  pid_t pid() const { return pid_; }
  pid_t parent() const { return stat_.parent; }
  uint64_t startTime() const { return stat_.startTime; }

  // Whether the process had begun to end when open() was called. Such a process still has a parent, and maybe a
  // program.
  bool isEnding() const { return stat_.isEnding; }

  // The version in the audit token, computed from the start time. Processes that have the same pid one after the other
  // have different versions: the kernel gives out pids in turn, so it does not use a pid twice within one clock tick
  // (10 ms), the unit of the start time.
  uint32_t version() const { return static_cast<uint32_t>(stat_.startTime ^ (stat_.startTime >> 32)); }

  // The current audit token; nothing when the process has ended.
  std::optional<audit_token_t> auditToken() const;

  // Whether the process runs `file`, or any file if `file` is null. False when the process has ended, or when
  // executable() returns nothing. If the program of the process can be read, runs() without a file is the cheapest way
  // to find out whether the process still exists.
  bool runs(const Executable* file = nullptr) const;

  // The file that the process runs. Nothing for a kernel thread, or if the calling process lacks the permission
  // (ptrace(2), "access mode checks").
  std::optional<Executable> executable() const;

  // The text of /proc/pid/cgroup, which all users can read. Empty when the process has ended.
  std::string controlGroups() const;

  // The text of /proc/pid/mounts: the mounts that the process sees. Empty when the process has ended.
  std::string mounts() const;

  // The text of /.flatpak-info, which Flatpak puts into each sandbox. Empty outside a sandbox. Nothing if it is unknown
  // whether the file exists.
  //
  // Flatpak puts the file on a tmpfs, where the kernel has it cached. A file anywhere else is not read, because a user
  // may give a process a root whose file system never answers: FUSE, or overlayfs above FUSE. FUSE can refuse other
  // users at once, but overlayfs asks FUSE with the rights of the user who mounted the overlay.
  std::optional<std::string> flatpakInformation() const;

  // The descriptor of the process's directory in /proc.
  int directory() const { return directory_.get(); }

 private:
  bool isOnTmpfs(int file) const;

  ProcessInformation(pid_t pid, Descriptor directory, ProcessStat stat)
      : pid_(pid), directory_(std::move(directory)), stat_(stat) {}

  pid_t pid_;
  Descriptor directory_;
  ProcessStat stat_;
};

// The audit token of a running process. The audit user and the session are those of the kernel's audit system; both are
// 4294967295 for a process that belongs to no login. For the version, see version(). Nothing when the process does not
// exist.
std::optional<audit_token_t> audit_token_of_process(pid_t pid);

// The audit token in a value, such as that of a flow. Nothing if the value does not have the size of a token.
std::optional<audit_token_t> read_audit_token(const Value& value);

// Calls `use` with each pid in a process table, in any order, until `use` returns false.
void each_process(const std::string& processTable, const std::function<bool(pid_t)>& use);

// The pids in a process table, in any order.
std::vector<pid_t> process_identifiers(const std::string& processTable = "/proc");

}  // namespace orvane

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/base/Descriptor.h"

namespace orvane {

// The file that a process runs.
struct Executable {
  std::string path;  // absolute; where the file stood when it has been replaced or removed since
  dev_t device;
  ino_t inode;
};

// The fields of /proc/pid/stat that are of use here.
struct ProcessStat {
  char state;
  pid_t parent;
  uint64_t startTime;  // clock ticks since boot
};

// Nothing when the text is not whole. The program's name stands in brackets in the middle of the line, and may itself
// hold brackets, spaces and digits.
std::optional<ProcessStat> parse_process_stat(std::string_view text);

// One running process, as the process table (proc(5)) shows it. The process's directory is held open: all answers come
// from the one process, and fail once it is gone, even if its identifier has been given to another. Not thread-safe.
class ProcessInformation {
 public:
  // Nothing when there is no such process, or it has ended and waits for its parent to notice.
  static std::optional<ProcessInformation> open(pid_t pid, const std::string& processTable = "/proc");

  pid_t pid() const { return pid_; }
  pid_t parent() const { return stat_.parent; }
  uint64_t startTime() const { return stat_.startTime; }

  // The version in the audit token. Two processes of one identifier never start within one tick (10 ms), as identifiers
  // are given out in turn: each has a version of its own.
  uint32_t version() const { return static_cast<uint32_t>(stat_.startTime ^ (stat_.startTime >> 32)); }

  // As it is now; nothing when the process has ended meanwhile. Keeps the files it reads open: asked again, it takes
  // half the time.
  std::optional<audit_token_t> auditToken() const;

  // Whether it lives and runs this file, or any where none is given. The cheapest question of all; false also for
  // processes whose executable() is not to be seen.
  bool runs(const Executable* file = nullptr) const;

  // Nothing for a kernel thread, and for a process that is not ours to look into (ptrace(2), access mode checks).
  std::optional<Executable> executable() const;

  // /proc/pid/cgroup; empty when it cannot be read. Readable for everybody.
  std::string controlGroups() const;

  // The description that Flatpak puts into each of its sandboxes; empty outside of one.
  std::string flatpakInformation() const;

  // The process's directory.
  int directory() const { return directory_.get(); }

 private:
  ProcessInformation(pid_t pid, Descriptor directory, ProcessStat stat)
      : pid_(pid), directory_(std::move(directory)), stat_(stat) {}

  pid_t pid_;
  Descriptor directory_;
  mutable Descriptor status_, auditUser_, auditSession_;
  ProcessStat stat_;
};

// The audit token of a running process. The user and the session are those of the kernel's audit (4294967295 where
// nobody has logged in), the version is taken from the start time: a later process with the same identifier has
// another.
std::optional<audit_token_t> audit_token_of_process(pid_t pid);

// The identifiers in a process table, in no order.
std::vector<pid_t> process_identifiers(const std::string& processTable = "/proc");

}  // namespace orvane

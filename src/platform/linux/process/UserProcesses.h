#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "platform/files/Descriptor.h"
#include "platform/linux/base/ThreadBudget.h"

namespace orvane {

// The processes of each user. Reading the process table takes about 3 microseconds for each process, and a user may
// start tens of thousands of processes. So update() may stop early, and the next call continues where it stopped. Not
// thread-safe.
class UserProcesses {
 public:
  // Reads the whole table.
  explicit UserProcesses(const std::string& processTable = "/proc");

  // Adds the processes that were started since the last call, then continues to reread the whole table. Each of the two
  // steps takes at most `time` of processor time.
  void update(std::chrono::nanoseconds time);

  // The pids of each user. A process belongs to the owner of its /proc/pid: its effective user, or root if the process
  // may not be dumped (prctl(2), PR_SET_DUMPABLE). Some of the processes may have ended.
  const std::unordered_map<uid_t, std::vector<pid_t>>& byUser() const { return current_; }

 private:
  using Processes = std::unordered_map<uid_t, std::vector<pid_t>>;
  enum class Reading { New, All };
  bool read(off_t& position, Reading reading, std::chrono::nanoseconds time);
  void add(const char* name, off_t position, Reading reading);

  // The kernel sorts the table by pid, and gives out ascending pids, so new processes are usually after newest_. When
  // the kernel starts again with the lowest free pid, only the rereading finds the new processes.
  Descriptor table_;
  off_t newest_ = 0;  // the position in the table of the highest pid that was read
  off_t next_ = 0;    // the position where the rereading continues
  Processes current_;
  Processes reread_;  // replaces current_ when the rereading reaches the end of the table
};

}  // namespace orvane

#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/base/Descriptor.h"
#include "platform/linux/base/ThreadBudget.h"

namespace orvane {

// The processes of each user. Reading the process table takes about 3 microseconds for each process, and a user may
// start ten thousands of them. So update() may stop early, and the next call continues where it stopped. Not
// thread-safe.
class UserProcesses {
 public:
  // Reads the whole table.
  explicit UserProcesses(const std::string& processTable = "/proc");

  // Adds the processes that were started since the last call, then goes on rereading the whole table, each for at most
  // this processor time.
  void update(std::chrono::nanoseconds time);

  // The pids by the owner of their /proc/pid (the effective user; root for a process that may not be dumped). Some may
  // have ended.
  const std::unordered_map<uid_t, std::vector<pid_t>>& byUser() const { return current_; }

 private:
  using Processes = std::unordered_map<uid_t, std::vector<pid_t>>;
  enum class Reading { New, All };
  bool read(off_t& position, Reading reading, std::chrono::nanoseconds time);
  void add(const char* name, off_t position, Reading reading);

  // The kernel sorts the table by pid, and gives out ascending pids until they start again.
  Descriptor table_;
  off_t newest_ = 0;  // the position in the table of the highest pid so far
  off_t next_ = 0;    // the position where the rereading continues
  Processes current_;
  Processes reread_;  // replaces current_ at the end of the table
};

}  // namespace orvane

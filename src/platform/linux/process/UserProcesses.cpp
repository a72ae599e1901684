#include "platform/linux/process/UserProcesses.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace orvane {

UserProcesses::UserProcesses(const std::string& processTable)
    : table_(::open(processTable.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  off_t position = 0;
  read(position, Reading::New, std::chrono::hours(1));
}

void UserProcesses::update(std::chrono::nanoseconds time) {
  off_t position = newest_;
  read(position, Reading::New, time);
  if (!read(next_, Reading::All, time)) return;
  current_ = std::exchange(reread_, {});
  next_ = 0;
}

// Reads entries of the table, from `position` on, for at most `time` of processor time. Returns whether it has reached
// the end of the table.
bool UserProcesses::read(off_t& position, Reading reading, std::chrono::nanoseconds time) {
  ThreadBudget budget(time);
  if (::lseek(table_.get(), position, SEEK_SET) < 0) return true;
  alignas(dirent64) std::array<char, 1024> entries;  // short, so that the time is checked often
  while (!budget.isSpent()) {
    ssize_t size = ::getdents64(table_.get(), entries.data(), entries.size());
    if (size <= 0) return true;
    const dirent64* entry;
    for (ssize_t offset = 0; offset < size; offset += entry->d_reclen) {
      entry = reinterpret_cast<const dirent64*>(&entries[static_cast<size_t>(offset)]);
      add(entry->d_name, position, reading);
      position = entry->d_off;
    }
  }
  return false;
}

void UserProcesses::add(const char* name, off_t position, Reading reading) {
  auto pid = static_cast<pid_t>(std::strtol(name, nullptr, 10));
  struct stat status;
  if (pid <= 0 || ::fstatat(table_.get(), name, &status, 0) != 0) return;
  newest_ = std::max(newest_, position);
  if (reading == Reading::New) current_[status.st_uid].push_back(pid);
  if (reading == Reading::All || position < next_) reread_[status.st_uid].push_back(pid);
}

}  // namespace orvane

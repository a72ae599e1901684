#pragma once

#include <memory>

#include "database/Table.h"
#include "platform/Log.h"
#include "platform/Synchronization.h"
#include "platform/Value.h"

// The state that the files of the block database share. Only these files, and tests, include this header.
namespace orvane {

// The state is never destroyed, because other threads may use it while the process ends.
extern os_log_t& db_log;
extern std::unique_ptr<Table>& db_spare;      // unused: see docs/compatibility.md
extern std::unique_ptr<Table>& db_hostnames;  // host name -> its properties, a dictionary
extern std::unique_ptr<Table>& db_browsers;   // browser identifier -> an empty dictionary
extern RecursiveMutex db_mutex;               // guards db_hostnames and db_browsers

// Holds db_mutex for a scope.
class DatabaseLock {
 public:
  DatabaseLock() { db_mutex.lock(); }
  ~DatabaseLock() {
    if (held_) db_mutex.unlock();
  }
  DatabaseLock(const DatabaseLock&) = delete;
  DatabaseLock& operator=(const DatabaseLock&) = delete;

  // Unlocks before the end of the scope. Returns the mutex's status.
  int unlock() {
    held_ = false;
    return db_mutex.unlock();
  }

 private:
  bool held_ = true;
};

// Copies a table, for the log, and holds db_mutex meanwhile. The copy shares the keys' characters and the values with
// the table.
Value db_table_copy(const std::unique_ptr<Table>& table);

}  // namespace orvane

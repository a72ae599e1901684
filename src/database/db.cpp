#include "database/db.h"

#include "database/db_state.h"
#include "platform/Bundle.h"

namespace orvane {

std::string_view HostnameKey = "Hostname";
std::string_view DontBlockUntilKey = "DontBlockUntil";
std::string_view kPLDontBlockUntilKey = DontBlockUntilKey;

os_log_t db_log;
std::unique_ptr<Table> db_spare;
std::unique_ptr<Table> db_hostnames;
std::unique_ptr<Table> db_browsers;
RecursiveMutex db_mutex;

int db_init() {
  db_log = os_log_create(kBundleIdentifier, "Database");
  db_spare = std::make_unique<Table>();
  db_hostnames = std::make_unique<Table>();
  db_browsers = std::make_unique<Table>();
  load_browsers_id();
  // Only now, after a load that has already locked and unlocked: there is one thread until the filter and the listener
  // start, and the mutex is harmless until it is initialised.
  db_mutex.initialise();
  return 0;
}

void db_term() {
  db_spare.reset();
  db_hostnames.reset();
  db_browsers.reset();
  // The mutex and the log stay: the next db_init takes both over as they are.
}

Value copy_of(const std::unique_ptr<Table>& table) {
  DatabaseLock lock;
  return table->dictionary();
}

namespace {

void add_to_hostnames(Table& hostnames, const Value& value) {
  if (!value.isString()) return;
  hostnames.addIfAbsent(value, Value::dictionary({}));
}

}  // namespace

void db_hostname_set(const Value& hostnames) {
  // The new table is built before the lock is taken, and the old one freed after it is given back, so that no verdict
  // waits for a long list. Whoever asks sees the old list or the new one, as if it had changed under the lock.
  auto table = std::make_unique<Table>();
  // With room for single names to follow, so that the next few of them need no new table under the lock.
  table->reserve(hostnames.asSet().size() + hostnames.asSet().size() / 8);
  for (const Value& member : hostnames.asSet()) add_to_hostnames(*table, member);
  {
    DatabaseLock lock;
    db_hostnames.swap(table);
  }
  ORVANE_LOG_DEBUG(db_log, "db_hostname_set: %@", hostnames);
  ORVANE_LOG_DEBUG(db_log, "db_hostnames: %@", copy_of(db_hostnames));
}

void db_hostname_add(const Value& hostname) {
  {
    DatabaseLock lock;
    add_to_hostnames(*db_hostnames, hostname);
  }
  ORVANE_LOG_DEBUG(db_log, "db_hostname_add: %@", hostname);
  ORVANE_LOG_DEBUG(db_log, "db_hostnames: %@", copy_of(db_hostnames));
}

void db_hostname_remove(const Value& hostname) {
  {
    DatabaseLock lock;
    db_hostnames->erase(hostname);
  }
  // "removed", unlike the function's name: the text is what people find it by in their logs.
  ORVANE_LOG_DEBUG(db_log, "db_hostname_removed: %@", hostname);
  ORVANE_LOG_DEBUG(db_log, "db_hostnames: %@", copy_of(db_hostnames));
}

bool db_has_hostname(std::string_view hostname) {
  bool held = false;
  {
    DatabaseLock lock;
    held = db_hostnames->find(Value::borrowed(hostname)) != nullptr;
  }
  ORVANE_LOG_DEBUG(db_log, "db_has_hostname %@ : %d", hostname, static_cast<int>(held));
  return held;
}

}  // namespace orvane

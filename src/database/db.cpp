#include "database/db.h"

#include "database/db_browsers.h"
#include "database/db_state.h"
#include "platform/Bundle.h"

namespace orvane {

os_log_t& db_log = *new os_log_t;
std::unique_ptr<Table>& db_spare = *new std::unique_ptr<Table>;
std::unique_ptr<Table>& db_hostnames = *new std::unique_ptr<Table>;
std::unique_ptr<Table>& db_browsers = *new std::unique_ptr<Table>;
RecursiveMutex db_mutex;

int db_init() {
  db_log = os_log_create(kBundleIdentifier, "Database");
  db_spare = std::make_unique<Table>();
  db_hostnames = std::make_unique<Table>();
  db_browsers = std::make_unique<Table>();
  load_browsers_id();
  // load_browsers_id() has already locked and unlocked the mutex. That is harmless: start-up has one thread, and
  // locking an uninitialised RecursiveMutex does nothing. The order of the two calls is frozen (docs/compatibility.md).
  db_mutex.initialise();
  return 0;
}

void db_term() {
  db_spare.reset();
  db_hostnames.reset();
  db_browsers.reset();
  // The mutex and the log handle stay for the next db_init.
}

Value db_table_copy(const std::unique_ptr<Table>& table) {
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
  // A long list takes long to insert and to free, and verdicts must not wait for that. So the new table is built before
  // locking, and the old table is freed after unlocking. While the lock is held, the tables only change places.
  auto table = std::make_unique<Table>();
  // Reserve an eighth more than the list needs. Otherwise the names that are added one by one later would soon make the
  // table grow, and it would grow while the lock is held.
  table->reserve(hostnames.asSet().size() + hostnames.asSet().size() / 8);
  for (const Value& member : hostnames.asSet()) add_to_hostnames(*table, member);
  {
    DatabaseLock lock;
    db_hostnames.swap(table);
  }
  ORVANE_LOG_DEBUG(db_log, "db_hostname_set: %@", hostnames);
  ORVANE_LOG_DEBUG(db_log, "db_hostnames: %@", db_table_copy(db_hostnames));
}

void db_hostname_add(const Value& hostname) {
  {
    DatabaseLock lock;
    add_to_hostnames(*db_hostnames, hostname);
  }
  ORVANE_LOG_DEBUG(db_log, "db_hostname_add: %@", hostname);
  ORVANE_LOG_DEBUG(db_log, "db_hostnames: %@", db_table_copy(db_hostnames));
}

void db_hostname_remove(const Value& hostname) {
  {
    DatabaseLock lock;
    db_hostnames->erase(hostname);
  }
  // The name in this message is not the function's name, but the text is frozen (docs/compatibility.md).
  ORVANE_LOG_DEBUG(db_log, "db_hostname_removed: %@", hostname);
  ORVANE_LOG_DEBUG(db_log, "db_hostnames: %@", db_table_copy(db_hostnames));
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

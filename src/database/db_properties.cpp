#include "database/db_properties.h"

#include "database/db.h"
#include "database/db_state.h"
#include "platform/Clock.h"

namespace orvane {

std::string_view HostnameKey = "Hostname";
std::string_view DontBlockUntilKey = "DontBlockUntil";
std::string_view kPLDontBlockUntilKey = DontBlockUntilKey;

int db_hostname_set_properties(const Value& hostname, const Value& properties) {
  ORVANE_LOG_DEBUG(db_log, "db_hostname_set_properties(%@,%@)", hostname, properties);
  // No copy is needed: values are immutable.
  Value stored = properties.isDictionary() ? properties : Value::dictionary({});
  DatabaseLock lock;
  if (Value* const current = db_hostnames->find(hostname)) {
    std::swap(*current, stored);  // `stored` now has the old properties and frees them after unlocking
  } else {
    // The name in this message is not the function's name, but the text is frozen (docs/compatibility.md).
    ORVANE_LOG_DEBUG(db_log, "db_hostname_set_properties_dictionary: hostname %@ not found", hostname);
  }
  return lock.unlock();
}

namespace {

// The properties of a host. If the host has no properties, or if they are not a dictionary, the function logs a message
// and returns null. The caller holds db_mutex.
const Value* db_hostname_get_properties_dictionary(std::string_view hostname) {
  const Value* properties = db_hostnames->find(Value::borrowed(hostname));
  if (properties == nullptr || properties->isNil()) {
    ORVANE_LOG_DEBUG(db_log, "db_hostname_get_properties_dictionary: %@ not found", hostname);
    return nullptr;
  }
  if (!properties->isDictionary()) {
    ORVANE_LOG_DEBUG(db_log, "db_hostname_get_properties_dictionary: %@ has not properties dictionary", hostname);
    return nullptr;
  }
  return properties;
}

}  // namespace

bool db_hostname_is_blockable(std::string_view hostname) {
  // The lock is held until the function returns, so that no edit comes between the steps of one decision.
  DatabaseLock lock;
  if (!db_has_hostname(hostname)) {
    ORVANE_LOG_DEBUG(db_log, "_db_hostname_is_blockable: %@ not found", hostname);
    return false;
  }
  const Value* properties = db_hostname_get_properties_dictionary(hostname);
  if (properties == nullptr) {
    ORVANE_LOG_DEBUG(db_log, "_db_hostname_is_blockable %@ has not properties", hostname);
    return true;
  }
  // The next two messages contain the key, not the host, because db_has_hostname has just logged the host.
  const std::string_view key = kPLDontBlockUntilKey;
  const Value* until = properties->find(key);
  if (until == nullptr || until->isNil()) {
    ORVANE_LOG_DEBUG(db_log, "_db_hostname_is_blockable %@ not found", key);
    return true;
  }
  if (!until->isDate()) {
    ORVANE_LOG_DEBUG(db_log, "_db_hostname_is_blockable %@ has wrong type", key);
    return true;
  }
  const int comparison = date_compare(Value::date(absolute_time_get_current()), *until);
  ORVANE_LOG_DEBUG(db_log, "_db_hostname_is_blockable comparison result: %ld", static_cast<long>(comparison));
  return comparison == 1;
}

}  // namespace orvane

#include "database/db.h"
#include "database/db_state.h"
#include "platform/Clock.h"

namespace orvane {

int db_hostname_set_properties(const Value& hostname, const Value& properties) {
  ORVANE_LOG_DEBUG(db_log, "db_hostname_set_properties(%@,%@)", hostname, properties);
  // Values never change, so sharing the dictionary is as good as a copy of it.
  Value stored = properties.isDictionary() ? properties : Value::dictionary({});
  DatabaseLock lock;
  if (Value* const current = db_hostnames->find(hostname)) {
    // The old properties leave with `stored`, after the lock has been given back.
    std::swap(*current, stored);
  } else {
    // "_dictionary", unlike the function's name: the text is what people find it by in their logs.
    ORVANE_LOG_DEBUG(db_log, "db_hostname_set_properties_dictionary: hostname %@ not found", hostname);
  }
  return lock.unlock();
}

namespace {

// The properties of a host. Null, after a message, when it has none. The caller holds the lock.
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
  // Held throughout, the messages included: one decision, which no edit can come into.
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
  // These two messages name the key, not the host: the host stands in the messages before them.
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

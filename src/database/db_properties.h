#pragma once

#include <string_view>

#include "platform/Value.h"

// The properties of held host names. See db.h for threads and ownership.
namespace orvane {

// Keys of a properties dictionary. The keys are variables, and a program may assign another string to
// kPLDontBlockUntilKey, so the database reads this variable on every call.
extern std::string_view HostnameKey;           // "Hostname": for companions; the extension does not read it
extern std::string_view DontBlockUntilKey;     // "DontBlockUntil": the date at which the host's suspension ends
extern std::string_view kPLDontBlockUntilKey;  // the key under which the database looks for this date

// Replaces all properties of a held name. If `properties` is not a dictionary, the name has no properties afterwards. A
// name that is not held is not added. Returns the status of unlocking the database's mutex.
int db_hostname_set_properties(const Value& hostname, const Value& properties);

// Whether the name is held and not suspended. The date under kPLDontBlockUntilKey suspends the name until this date has
// passed.
bool db_hostname_is_blockable(std::string_view hostname);

}  // namespace orvane

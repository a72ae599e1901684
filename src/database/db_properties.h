#pragma once

#include <string_view>

#include "platform/Value.h"

// The properties of held host names. See db.h for threads and ownership.
namespace orvane {

// Keys of a properties dictionary. They are variables: a program may point one at another string, so the database reads
// kPLDontBlockUntilKey on every call.
extern std::string_view HostnameKey;           // "Hostname": for companions; the extension does not read it
extern std::string_view DontBlockUntilKey;     // "DontBlockUntil": a date; the host is not blocked until it has passed
extern std::string_view kPLDontBlockUntilKey;  // the same string; the database reads the date under this key

// Replaces all properties of a held name. A value that is not a dictionary empties them. A name that is not held stays
// unknown. Returns the status of unlocking the database's mutex.
int db_hostname_set_properties(const Value& hostname, const Value& properties);

// Whether the name is held and not suspended. Its date suspends it until the current time is later than the date.
bool db_hostname_is_blockable(std::string_view hostname);

}  // namespace orvane

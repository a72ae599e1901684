#pragma once

#include <string_view>

#include "platform/Value.h"

// The properties of held host names. See db.h for threads and ownership.
namespace orvane {

// Keys of a properties dictionary. Writable: a program may point one at another string, and each call reads it afresh.
extern std::string_view HostnameKey;           // "Hostname": for companions; the extension does not read it
extern std::string_view DontBlockUntilKey;     // "DontBlockUntil": a date; the host is not blocked until it has passed
extern std::string_view kPLDontBlockUntilKey;  // the same string; the database reads the date under this key

// Replaces all properties of a held name. Anything but a dictionary empties them. A name that is not held is not added.
// Returns the status of unlocking the database's mutex.
int db_hostname_set_properties(const Value& hostname, const Value& properties);

// Whether the name is held and not suspended by a date that is still to come.
bool db_hostname_is_blockable(std::string_view hostname);

}  // namespace orvane

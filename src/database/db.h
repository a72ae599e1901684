#pragma once

#include <string_view>

#include "platform/Value.h"

// The block database. It contains the host names to block, which are called "held" names, the properties of these names
// (db_properties.h), and the identifiers of browsers (db_browsers.h). The process has one block database, in memory
// only.
//
// Every function except db_init and db_term may be called on any thread. The caller keeps ownership of the arguments.
// No function fails. The comment of a function says what happens if an argument has the wrong type.
//
// Host names match byte for byte. The database changes neither case nor a final dot, so callers pass the form in which
// browsers ask for a name.
namespace orvane {

// Creates the tables and loads the browsers list. Call once, on one thread, before any other db_ function. Returns 0.
int db_init();
// Releases the tables. Only db_init may be called afterwards.
void db_term();

// Replaces all held names by the strings in a set, each with empty properties. A value that is not a set removes all
// held names.
void db_hostname_set(const Value& hostnames);
// Adds a string with empty properties; a name that is already held keeps its properties. Ignores a value that is not a
// string.
void db_hostname_add(const Value& hostname);
// Removes a name and its properties. Does nothing if the name is not held.
void db_hostname_remove(const Value& hostname);
bool db_has_hostname(std::string_view hostname);

}  // namespace orvane

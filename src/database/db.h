#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

// The block database: the host names to block with their properties, and the identifiers that count as browsers. One
// for the process, in memory only. Every function but db_init and db_term may be called on any thread. None takes over
// its arguments, none fails: what an argument of the wrong type means is said at each.
//
// Host names are compared exactly, code unit by code unit. Nothing here changes a name's case or removes a final dot:
// callers pass names in the form in which they are to match.
namespace orvane {

// Keys of a host's properties. Writable: whoever links with the database may make one refer to another string.
extern std::string_view HostnameKey;           // "Hostname", offered to companions; nothing here reads it
extern std::string_view DontBlockUntilKey;     // "DontBlockUntil", a date: the host is not blocked until it has passed
extern std::string_view kPLDontBlockUntilKey;  // the same string; the name through which it is read here

// Once, on one thread, before anything else here. Always 0. Loads the browsers list.
int db_init();
// Gives the tables up. Only db_init may follow. Nothing in the extension calls it.
void db_term();

// Replaces the whole list, with empty properties for all. A set; of another value, no members are taken. Members that
// are not strings are skipped.
void db_hostname_set(const Value& hostnames);
// Adds a name with empty properties; a name that is held keeps its own. Not a string: nothing is added.
void db_hostname_add(const Value& hostname);
void db_hostname_remove(const Value& hostname);
bool db_has_hostname(std::string_view hostname);

// Replaces the properties of a held name whole: by a dictionary, or nil (or anything else) for empty ones. A name that
// is not held stays so. Returns the status of giving the lock back.
int db_hostname_set_properties(const Value& hostname, const Value& properties);
// Whether the name is held and no date in its properties suspends that at this moment.
bool db_hostname_is_blockable(std::string_view hostname);

// Fills the browser identifiers from the extension's own browsers list.
void load_browsers_id();
// The property list in the resource Browsers.plist of the bundle at a file URL, or of the main bundle. Nil when there
// is none, after an error in the log.
Value load_browsers_id_file(const std::optional<std::string>& bundleURL);
// Replaces the browser identifiers by the strings of an array. An empty array, and a value that is no array, change
// nothing.
void db_browser_set_from_plist(const Value& plist);
// Replaces the browser identifiers by the strings of a set.
void db_browsers_set(const Value& identifiers);
void db_browser_add(const Value& identifier);
void db_browser_remove(const Value& identifier);
// Whether the identifier ends with one of the browser identifiers.
bool db_is_browser(std::string_view identifier);

}  // namespace orvane

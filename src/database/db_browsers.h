#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

// The identifiers of browsers: a program is a browser if its bundle identifier ends with one of them. See db.h for
// threads and ownership.
namespace orvane {

// Loads the browsers list of the extension's own bundle.
void load_browsers_id();
// Reads the resource Browsers.plist of the bundle at the file URL `bundleURL`. If there is no URL, reads this resource
// of the main bundle. Returns the file's property list, or nil after an error, which is logged.
Value load_browsers_id_file(const std::optional<std::string>& bundleURL);
// Replaces the identifiers by the strings in an array. An empty array, or a value that is not an array, changes
// nothing.
void db_browser_set_from_plist(const Value& plist);

// Replaces the identifiers by the strings in a set. A value that is not a set removes all identifiers.
void db_browsers_set(const Value& identifiers);
// Adds a string to the identifiers. Ignores a value that is not a string.
void db_browser_add(const Value& identifier);
void db_browser_remove(const Value& identifier);

// Whether `identifier`, a program's bundle identifier, ends with one of the browsers' identifiers.
bool db_is_browser(std::string_view identifier);

}  // namespace orvane

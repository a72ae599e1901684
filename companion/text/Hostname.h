#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Converts a host name to the form that browsers send: lower case, international labels as A-labels (UTS #46,
// non-transitional, with the system library's tables), no trailing dot. The extension needs this form, because it
// compares names byte for byte. A label has at most 63 letters, digits, hyphens and underscores; a name has at most 253
// characters (RFC 1035, section 2.3.4).
//
// Returns true and sets `name`, or returns false and sets `fault` to what is wrong and what to do, as in "it has a
// port: give the host name alone". IP addresses are refused: a browser that connects to an address sends no host name.
//
// The function writes into the memory that `name` already has, so `given` must not be a view of `name`.
bool normalize_hostname(std::string_view given, std::string& name, std::string& fault);

}  // namespace orvane

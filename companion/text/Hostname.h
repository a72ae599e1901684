#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Brings a host name into the form in which browsers send it, which is the form that the extension compares exactly:
// lower case, international labels as A-labels (UTS #46, non-transitional, with the tables of the system's library), no
// trailing dot. Labels hold letters, digits, hyphens and underscores, at most 63 of them; a name has at most 253
// characters (RFC 1035, section 2.3.4).
//
// True with the form in `name`; false for what cannot be a host name, with the reason in `fault`: what is wrong and
// what to do, as in "it has a port: give the host name alone". An IP address is none: a browser that connects to an
// address names no host.
//
// `name` keeps its memory from call to call; it must not be what `given` looks at.
bool normalize_hostname(std::string_view given, std::string& name, std::string& fault);

}  // namespace orvane

#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Whether the system's Public Suffix List contains the name: in the list's section of registries (co.uk), or in its
// section of private owners (github.io). A top-level name that the list does not contain is no public suffix here,
// because a local network may use it for a host.
bool is_public_suffix(const char* host);
inline bool is_public_suffix(std::string_view host) { return is_public_suffix(std::string(host).c_str()); }

}  // namespace orvane

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvane {

// The extension's status line for the service manager (sd_notify(3)) while the extension filters. From this line,
// companions read how many connections hid the names of their hosts.

std::string filtering_status(uint64_t hiddenNames);

// The status line of an extension that blocks nothing, because it recognises no browser. `reason` says why.
std::string no_browser_status(const std::string& reason);

// Whether the line is from filtering_status() or no_browser_status().
bool says_filtering(std::string_view status);

// Whether the line is from no_browser_status().
bool says_filtering_nothing(std::string_view status);

// The number of hidden names in a status line; 0 if the line has none.
uint64_t hidden_names_in(std::string_view status);

}  // namespace orvane

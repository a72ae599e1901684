#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvane {

// The list of browser identifiers by which the extension recognises browsers: a property list in the extension's
// bundle.
struct BrowserList {
  std::string path;
  std::vector<std::string> endings;  // an application whose identifier ends with one of these is a browser
  std::string fault;                 // why the extension cannot use the list; empty when it can

  bool recognises(std::string_view identifier) const;
};

// The list's path in the folder of the bundle.
inline constexpr const char* kBrowserListInBundle = "/Contents/Resources/Browsers.plist";

// Reads the list at `path`. A list of more than 1024 bytes is a fault, because the extension reads only the first 1024
// bytes.
BrowserList read_browser_list(const std::string& path);

}  // namespace orvane

#pragma once

#include <string>
#include <string_view>

#include "platform/Value.h"

namespace orvane {

// The bundle of the package's extension.
inline constexpr const char* kPackageBundle = "/usr/lib/orvane-se/OrvaneSE.systemextension";

// The path of a bundle's file with the extension's settings.
std::string settings_file(const std::string& bundle);

// The value of a key in the dictionary NetworkExtension of this file. Nil if the key is missing or the file cannot be
// read. The extension reads the file when it starts, so a running extension may still have an earlier value.
Value extension_setting(const std::string& bundle, std::string_view key);

}  // namespace orvane

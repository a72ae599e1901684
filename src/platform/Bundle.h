#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Ref.h"
#include "platform/Value.h"

namespace orvane {

// The extension's bundle identifier. It is also the subsystem of all log categories.
inline constexpr const char* kBundleIdentifier = "org.orvane.OrvaneSE";

// A bundle: a directory with Contents/Info.plist and Contents/Resources. Reference-counted.
struct Bundle;
void retain(const Bundle* bundle);
void release(const Bundle* bundle);

// The bundle that contains the running program, or null. Borrowed; it lives as long as the process.
Bundle* bundle_get_main();

// The bundle at a file URL ("file:///..."), or null.
Ref<Bundle> bundle_create(const std::string& url);

// The value of a key of the bundle's information dictionary, which is read from Contents/Info.plist. Nil when the key
// or the dictionary is missing, or the bundle is null.
Value bundle_get_information(const Bundle* bundle, std::string_view key);

// The file URL of Resources/NAME.TYPE. Nothing when the file does not exist or the bundle is null.
std::optional<std::string> bundle_copy_resource_url(const Bundle* bundle, std::string_view name, std::string_view type);

}  // namespace orvane

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Ref.h"
#include "platform/Value.h"

namespace orvane {

// The extension's bundle identifier, which is also the subsystem of all its log categories.
inline constexpr const char* kBundleIdentifier = "org.orvane.OrvaneSE";

// A bundle: a directory with Contents/Info.plist and Contents/Resources. Counted.
struct Bundle;
void retain(const Bundle* bundle);
void release(const Bundle* bundle);

// The extension's own bundle, found from the program's own path. Borrowed; it lives as long as the process. Null when
// the program does not stand in a bundle.
Bundle* bundle_get_main();

// The bundle at a file URL ("file:///..."). Null when there is none.
Ref<Bundle> bundle_create(const std::string& url);

// The value of a key of the information dictionary. Nil when the key, the dictionary or the bundle (null) is missing.
Value bundle_get_information(const Bundle* bundle, std::string_view key);

// The file URL of Resources/NAME.TYPE, without a subdirectory. Nothing when there is no such file, or no bundle (null).
std::optional<std::string> bundle_copy_resource_url(const Bundle* bundle, std::string_view name, std::string_view type);

}  // namespace orvane

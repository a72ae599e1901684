#include "companion/application/Advice.h"

#include <span>

namespace orvane {
namespace {

const char* const kExtensionLog =
    "Look up the reason in the system's log: log show --last 5m --predicate 'process == \"sysextd\"'";
const char* const kFilterLog =
    "Look up the reason in the system's log: log show --last 5m --predicate 'process == \"nesessionmanager\"'";

const char* const kPermission =
    "Press the button again, and allow it when the system asks. The application must be signed with the entitlement "
    "com.apple.developer.networking.networkextension.";

// The advice for each code, beginning with the code 1.
const char* const kExtensionAdvice[] = {
    kExtensionLog,  // Unknown
    "Sign the application with the entitlement com.apple.developer.system-extension.install.",
    kMoveAdvice,
    "The application contains no extension of this name. Install it again.",
    "The extension's Info.plist has no CFBundleIdentifier. Build and install the application again.",
    "Two extensions in the application have the same identifier. Build and install the application again.",
    "The extension's Info.plist has no dictionary NetworkExtension. Build and install the application again.",
    "Sign the extension, then the application, with the same identity.",
    "The system refuses the extension's Info.plist or entitlements. Build and install the application again.",
    "A rule of this Mac's administrator forbids the extension. Ask the administrator to allow it.",
    "The request was cancelled. Press the button again.",
    "A later request has replaced this one, and decides.",
    "An administrator must allow it. Press the button again, and give an administrator's name and password.",
};

const char* const kFilterAdvice[] = {
    "The system does not accept the filter's settings. Install the application again.",
    "The filter is switched off. Press Switch On.",
    "Another program has changed the filter's settings. Press the button again.",
    "A profile of this Mac's administrator may have installed the filter. Ask the administrator to remove the profile.",
    kPermission,
    kFilterLog,  // an internal error
};

std::string advice(std::span<const char* const> known, int64_t code, const char* otherwise) {
  return code >= 1 && code <= static_cast<int64_t>(known.size()) ? known[static_cast<size_t>(code - 1)] : otherwise;
}

}  // namespace

std::string extension_advice(int64_t code) { return advice(kExtensionAdvice, code, kExtensionLog); }

std::string filter_advice(int64_t code) { return advice(kFilterAdvice, code, kFilterLog); }

}  // namespace orvane

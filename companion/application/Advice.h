#pragma once

#include <cstdint>
#include <string>

namespace orvane {

// What the user can do about an error of the system. Codes that a later system adds get advice, too.

inline constexpr const char* kMoveAdvice = "Move the application into the folder Applications, and open it there.";

// `code`: an OSSystemExtensionErrorCode (SystemExtensions.h).
std::string extension_advice(int64_t code);
// `code`: an NEFilterManagerError (NEFilterManager.h).
std::string filter_advice(int64_t code);

}  // namespace orvane

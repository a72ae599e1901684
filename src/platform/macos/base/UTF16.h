#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Between our strings, UTF-8, and the system's, UTF-16. A surrogate without its other half, which the system's strings
// may hold, is three bytes in ours, so that each of its strings comes back as it went. A byte of ours that belongs to
// no character becomes U+FFFD.
std::u16string utf16_of(std::string_view text);
std::string utf8_of(std::u16string_view units);

}  // namespace orvane

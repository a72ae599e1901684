#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Converts between the core's strings (UTF-8) and Foundation's (UTF-16). Host names are compared exactly, so each
// Foundation string has its own UTF-8 form: an unpaired surrogate, which standard UTF-8 forbids, becomes three bytes.
// In the other direction, a byte that belongs to no character becomes U+FFFD.
std::u16string utf16_of(std::string_view text);
std::string utf8_of(std::u16string_view units);

}  // namespace orvane

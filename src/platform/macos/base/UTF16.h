#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Converts between the core's strings (UTF-8) and Foundation's (UTF-16). Every Foundation string survives the way to
// UTF-8 and back, because host names are compared exactly: an unpaired surrogate, which UTF-8 proper forbids, becomes
// three bytes. A byte that belongs to no character becomes U+FFFD.
std::u16string utf16_of(std::string_view text);
std::string utf8_of(std::u16string_view units);

}  // namespace orvane

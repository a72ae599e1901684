#pragma once

#include <string>
#include <string_view>

namespace orvane {

// Converts between the core's strings (UTF-8) and Foundation's (UTF-16). Host names are compared exactly, so two
// different Foundation strings must not get the same UTF-8 form. For this reason an unpaired surrogate becomes three
// bytes, although standard UTF-8 forbids that. In the other direction, a byte that belongs to no character becomes
// U+FFFD.
std::u16string utf16_of(std::string_view text);
std::string utf8_of(std::u16string_view units);

}  // namespace orvane

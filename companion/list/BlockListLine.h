#pragma once

#include <string>
#include <string_view>

#include "companion/list/BlockList.h"

namespace orvane {

// The line of a site, as orvane-list(5) describes it: HOST [only] [until=TIME].
std::string line_of(const BlockedSite& site);

// Reads a line that is not blank and has no comment. `usualNames`: whether a site without "only" has usual names; true
// for the machine's list. Returns false for an invalid line and sets `fault` to what is wrong and what to do.
bool read_line(std::string_view line, bool usualNames, BlockedSite& site, std::string& fault);

// Calls normalize_hostname(), but refuses a text that is too long: the time to convert an international name grows with
// its length.
bool read_hostname(std::string_view given, std::string& name, std::string& fault);

// Removes the first word and the white space after it from a text that starts with a word. Returns the word.
std::string_view take_word(std::string_view& text);

}  // namespace orvane

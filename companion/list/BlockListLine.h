#pragma once

#include <string>
#include <string_view>

#include "companion/list/BlockList.h"

namespace orvane {

// A site as its line in the list has it: HOST [only] [until=TIME].
std::string line_of(const BlockedSite& site);

// Reads such a line, without its comment and not blank. `usualNames`: whether a line without "only" stands for the
// usual names, too, as it does in the list. False for what is no such line, with the reason in `fault`: what is wrong
// and what to do.
bool read_line(std::string_view line, bool usualNames, BlockedSite& site, std::string& fault);

// normalize_hostname() for a text of any length.
bool read_hostname(std::string_view given, std::string& name, std::string& fault);

// The first word of a text without white space before it; the text is left with what follows.
std::string_view take_word(std::string_view& text);

}  // namespace orvane

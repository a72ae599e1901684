#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace orvane {

// What keeps the bytes from being a property list of the one form or the other; nothing when they are one.
//
// libplist takes much that is none: an XML list without its end, numbers with letters, keys without a value. And it
// takes on any binary list, at any depth and at any cost: objects that are shared grow with each use. So a list
// reaches it only when these have found it whole, at most kMaxDepth containers deep, and of bounded size once taken
// apart. Beyond that they refuse what it would not read as written: sets (it makes arrays of them), integers above 64
// bits, dates outside of 1932-12-14 to 2069-01-18 (it counts seconds in 32 bits), strings with a NUL.
std::optional<std::string> fault_of_xml_list(std::span<const uint8_t> bytes);
std::optional<std::string> fault_of_binary_list(std::span<const uint8_t> bytes);

inline constexpr int kMaxDepth = 64;

}  // namespace orvane

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace orvane {

inline constexpr std::string_view kBinaryPropertyListStart = "bplist00";

// Reads a binary property list with containers at most `maxDepth` deep. Nil when the bytes are not a whole property
// list; *fault then says why. An object that is used several times is read once and shared. But describing or comparing
// the value visits the object once for each use, so the total size of all uses is limited, too.
//
// The format is described in the comments of Apple's CFBinaryPList.c: the letters "bplist00", the objects, a table of
// their offsets, and a trailer of 32 bytes. Sets are refused.
Value read_binary_property_list(std::span<const uint8_t> bytes, size_t maxDepth, std::string* fault);

}  // namespace orvane

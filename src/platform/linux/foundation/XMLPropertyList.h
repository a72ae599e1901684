#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/Value.h"

namespace orvane {

// Reads an XML property list, in UTF-8 or UTF-16, with containers at most `maxDepth` deep. Nil when the bytes are not a
// whole property list; *fault then says why. Loads no DTD and no other file, and refuses a list that declares entities.
Value read_xml_property_list(std::span<const uint8_t> bytes, size_t maxDepth, std::string* fault);

}  // namespace orvane

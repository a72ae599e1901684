#pragma once

#include <string>
#include <string_view>

#include "platform/Value.h"

@class NSString;

// Converts between values and Foundation's objects. A value converted to Foundation and back stays the same, with two
// exceptions. First, a boolean is equal to the number 0 or 1 in Foundation, so a set cannot have both as members, and a
// dictionary cannot have both as keys. Second, containers that are nested deeper than kMaxDepth are lost. New objects
// are autoreleased.
namespace orvane {

// Nil for nil. Foundation's containers cannot contain nil, so they contain NSNull instead.
id foundation_object(const Value& value);

// Nil for an object that no kind of value represents, and for a container inside kMaxDepth other containers.
Value value_of(id object);
inline constexpr int kMaxDepth = 256;

::NSString* foundation_string(std::string_view text);
// Empty for nil.
std::string text_of(::NSString* string);

}  // namespace orvane

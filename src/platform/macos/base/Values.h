#pragma once

#include <string>
#include <string_view>

#include "platform/Value.h"

@class NSString;

// Values and Foundation's objects. Each way gives back exactly what the other took, but for two things: to Foundation a
// boolean and the number that it amounts to are one member of a set, or one key; and kMaxDepth. Objects that are made
// here are autoreleased.
namespace orvane {

// Nil for nil; inside a container, which cannot hold that, NSNull.
id foundation_object(const Value& value);

// Nil for an object of a class that no kind of value stands for, and for what lies deeper than kMaxDepth containers.
Value value_of(id object);
inline constexpr int kMaxDepth = 256;

::NSString* foundation_string(std::string_view text);
// Empty for nil.
std::string text_of(::NSString* string);

}  // namespace orvane

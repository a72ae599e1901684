#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "ControlProtocol.capnp.h"
#include "platform/Value.h"

// Values to and from the form that they have in messages of the control channel.
namespace orvane {

// What one message may be. A message of a million names has some seven words for each.
inline constexpr uint64_t kMaximumMessageWords = 32 << 20;
inline constexpr uint64_t kMaximumElements = 4 << 20;  // values of any kind, in one message
inline constexpr unsigned kMaximumNesting = 32;        // containers within containers

// What a value takes in a message.
struct ValueSize {
  uint64_t words = 0;
  uint64_t elements = 0;
  unsigned nesting = 0;  // containers on the deepest way down; no further than one above the maximum

  // Whether a message that holds little else is accepted by the other end.
  bool fits() const {
    constexpr uint64_t kEnvelopeWords = 1024;
    return words + kEnvelopeWords <= kMaximumMessageWords && elements <= kMaximumElements && nesting <= kMaximumNesting;
  }
};
ValueSize measure(const Value& value);
ValueSize measure_string(size_t length);

void write_value(const Value& value, control::Value::Builder builder);

// Reads a value from a message of `messageWords` words. Nothing when it is malformed (strings must be UTF-8), too
// deeply nested, or yields more than a message of that size can honestly hold: within a message, pointers may meet in
// one place and elements may take no room, so that few bytes could make a great many values.
std::optional<Value> read_value(control::Value::Reader reader, uint64_t messageWords);

}  // namespace orvane

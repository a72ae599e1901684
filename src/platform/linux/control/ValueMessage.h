#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "ControlProtocol.capnp.h"
#include "platform/Value.h"

// Converts values to and from messages of the control channel.
namespace orvane {

// Limits of one message. For comparison: a host name takes about seven words.
inline constexpr uint64_t kMaximumMessageWords = 32 << 20;
// The receiver refuses a call in a larger message, because the call's values could take more memory than all values
// together may take (kValueLimit in ControlSession.cpp).
inline constexpr uint64_t kMaximumCallWords = 16 << 20;
inline constexpr uint64_t kMaximumElements = 4 << 20;  // values of any kind, in one message
inline constexpr unsigned kMaximumNesting = 32;        // depth of containers within containers

// The size of a value in a message.
struct ValueSize {
  uint64_t words = 0;
  uint64_t elements = 0;
  unsigned nesting = 0;  // depth of containers; measuring stops at kMaximumNesting + 1

  // More than a call takes apart from its argument.
  static constexpr uint64_t kEnvelopeWords = 1024;
  // Whether the receiver accepts a call with this value as the only argument.
  bool fits() const {
    return words + kEnvelopeWords <= kMaximumCallWords && elements <= kMaximumElements && nesting <= kMaximumNesting;
  }
};
ValueSize measure(const Value& value);
ValueSize measure_string(size_t length);

void write_value(const Value& value, control::Value::Builder builder);

// Reads a value from a message of `messageWords` words. Returns nothing if the value is malformed (strings must be
// UTF-8), nested too deeply, or much larger than the message. A value can be larger than its message because several
// pointers may lead to the same bytes, and because list elements may be empty. So the value may have at most one
// element for each word of the message, and at most as many bytes of text and data as the message has.
std::optional<Value> read_value(control::Value::Reader reader, uint64_t messageWords);

}  // namespace orvane

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace orvane {

// If the bytes begin with a name in label form (RFC 1035, section 3.1), returns the length of this name in bytes,
// including its final zero. Otherwise returns 0. A compression pointer is rejected, because it would refer to a part of
// the message before these bytes.
size_t question_name_length(std::span<const uint8_t> bytes);

}  // namespace orvane

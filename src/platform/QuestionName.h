#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace orvane {

// The length of the name in label form at the start of the bytes, with its final zero (RFC 1035, section 3.1). 0 when
// the bytes do not begin with a name. A compression pointer is rejected, because it would refer to an earlier part of
// the message, and the bytes begin at the question.
size_t question_name_length(std::span<const uint8_t> bytes);

}  // namespace orvane

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace orvane {

// The octets of the name in label form that the bytes start with, its closing zero included (RFC 1035, section 3.1). 0
// when there is none. A question stands alone here, with no message around it, so a compression pointer has nothing to
// point at; a resolver that followed one could be led in circles.
size_t question_name_length(std::span<const uint8_t> bytes);

}  // namespace orvane

#pragma once

#include <string>
#include <string_view>

namespace orvane {

// The SHA-256 digest of the bytes, in hexadecimal, as sha256sum(1) prints it.
std::string sha256_text(std::string_view bytes);

}  // namespace orvane

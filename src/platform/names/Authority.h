#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

// "host[:port]" (RFC 3986, section 3.2).
struct Authority {
  std::string host;  // as written, percent-encoding included; an IPv6 address without its brackets
  bool isAddress;
  std::optional<uint16_t> port;  // never 0
};

// Returns nothing for an authority with user information, port 0, or no host.
std::optional<Authority> parse_authority(std::string_view text);

}  // namespace orvane

#pragma once

#include <algorithm>
#include <cstdlib>

#include "platform/names/ServerName.h"
#include "platform/names/Subdomains.h"

namespace orvane {

// Reads the first bytes of a connection twice: with one reader in one piece, and with another reader in up to 61
// pieces. The two readers must find the same result, and each host that covers the server name must be the end of this
// name. Returns the reader that read the bytes in one piece.
inline ServerNameReader read_first_bytes(std::span<const uint8_t> bytes) {
  ServerNameReader whole, pieces;
  whole.read(bytes);
  const size_t step = 1 + bytes.size() / 61;
  for (size_t at = 0; at < bytes.size(); at += step) pieces.read(bytes.subspan(at, std::min(step, bytes.size() - at)));
  if (whole.state() != pieces.state() || whole.name() != pieces.name()) std::abort();
  if ((whole.state() == ServerNameReader::State::Known) == whole.name().empty()) std::abort();
  if (whole.name().find_first_of(std::string_view("\0\r\n", 3)) != std::string::npos && bytes[0] != 22) std::abort();
  for (std::string_view host : covering_hosts(whole.name())) {
    if (!whole.name().ends_with(host)) std::abort();
  }
  return whole;
}

}  // namespace orvane

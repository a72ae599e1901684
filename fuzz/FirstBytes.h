#pragma once

#include <algorithm>
#include <cstdlib>

#include "platform/linux/flow/ServerName.h"

namespace orvane {

// Looks for the server name in growing prefixes of a connection's first bytes, as packets deliver them. Once the answer
// is Known or Unknown, later bytes must not change it, and at kServerNameLimit it must not be Open. Returns the last
// answer.
inline ServerName find_in_growing_prefixes(std::span<const uint8_t> bytes) {
  ServerName before{ServerName::State::Open};
  const size_t step = 1 + bytes.size() / 61;
  for (size_t length = 0;;) {
    ServerName now = find_server_name(bytes.first(length));
    bool settled = before.state != ServerName::State::Open;
    if (settled && (now.state != before.state || now.name != before.name)) abort();
    if (now.state == ServerName::State::Known && now.name.empty()) abort();
    if (now.state == ServerName::State::Open && length >= kServerNameLimit) abort();
    before = std::move(now);
    if (length == bytes.size()) return before;
    size_t next = length < kServerNameLimit ? std::min(length + step, kServerNameLimit) : length + step;
    length = std::min(next, bytes.size());
  }
}

}  // namespace orvane

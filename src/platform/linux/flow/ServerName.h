#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace orvane {

// The number of a connection's first bytes that can give its name.
inline constexpr size_t kServerNameLimit = 16384;

// The server name in a connection's first outbound bytes: in a TLS ClientHello (RFC 6066, section 3) or in the Host
// field of an HTTP/1 request.
struct ServerName {
  enum class State {
    Open,     // more bytes are needed
    Known,    // `name` is as the client wrote it
    Unknown,  // there is no name, whatever follows
  };

  State state;
  std::string name{};
};

// Finds the name in all first bytes so far. TLS records may split the ClientHello anywhere.
ServerName find_server_name(std::span<const uint8_t> firstBytes);

}  // namespace orvane

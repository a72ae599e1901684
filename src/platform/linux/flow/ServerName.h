#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace orvane {

// As many first bytes of a connection as are looked at for a name.
inline constexpr size_t kServerNameLimit = 16384;

// The name of the server that the first outbound bytes of a connection ask for: the server name of a TLS ClientHello
// (RFC 6066, section 3), or the Host field of an HTTP/1 request.
struct ServerName {
  enum class State {
    Open,     // more bytes may give it
    Known,    // `name` holds it, as the client wrote it
    Unknown,  // no further byte will give it
  };

  State state;
  std::string name{};
};

// Reads it from all the first bytes so far. The hello may be cut into TLS records in any way.
ServerName find_server_name(std::span<const uint8_t> firstBytes);

}  // namespace orvane

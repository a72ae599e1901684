#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "platform/linux/flow/ClientHello.h"
#include "platform/linux/flow/RequestHost.h"

namespace orvane {

// Reads the name of the server that a client asks for from the first outbound bytes of its connection: the server name
// of a TLS ClientHello, or the Host field of an HTTP/1 request. Each byte is looked at once. Not thread-safe.
class ServerNameReader {
 public:
  enum class State {
    Open,     // more bytes can give the name
    Known,    // name() is complete
    Unknown,  // no further byte can give it
  };

  // Takes the next bytes of the connection, from its first one on.
  State read(std::span<const uint8_t> bytes);

  State state() const { return state_; }

  // In the form in which names are listed (HostName.h). Empty unless it is known.
  const std::string& name() const { return name_; }

 private:
  State state_ = State::Open;
  std::variant<std::monostate, ClientHelloReader, RequestHostReader> reader_;
  std::string name_;
};

}  // namespace orvane

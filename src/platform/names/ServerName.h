#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "platform/names/ClientHello.h"
#include "platform/names/HostName.h"
#include "platform/names/RequestHost.h"

namespace orvane {

// Reads the server name from a connection's first outbound bytes: from a TLS ClientHello, or from the Host field of an
// HTTP/1 request. Each byte is read once. Not thread-safe.
class ServerNameReader {
 public:
  using State = NameState;

  // Reads the next bytes of the connection; the first call gets the connection's first bytes.
  State read(std::span<const uint8_t> bytes);

  // Does the same as read() for a TLS ClientHello that is not in TLS records (ClientHelloReader::readHandshake).
  State readHandshake(std::span<const uint8_t> bytes);

  State state() const { return state_; }

  // The server name in the form of the list's names (HostName.h). Empty unless the state is Known.
  const std::string& name() const { return name_; }

  // Whether name() is only the name of a hosting service, and the site's name may be in an encrypted hello.
  bool isNameHidden() const;

 private:
  State state_ = State::Open;
  std::variant<std::monostate, ClientHelloReader, RequestHostReader> reader_;
  std::string name_;
};

}  // namespace orvane

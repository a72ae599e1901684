#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/names/HostName.h"

namespace orvane {

// Whether the bytes can begin a request line: a method of at most 31 letters, digits and hyphens, then a space. The
// proxy checks this before it parses a head, because its parser rejects TLS and other protocols only at the end of the
// head.
bool may_be_request(std::string_view bytes);

// Reads the host name, without a port, from the Host field (RFC 9112, section 3.2) of a request to an origin server, as
// the bytes of the request's head arrive. The name is known at the end of the field's line. Stores about a kilobyte,
// whatever the length of the head. Not thread-safe.
class RequestHostReader {
 public:
  // Unknown: the bytes are no HTTP/1 request, or the head has no host or is too long.
  using State = NameState;

  // Limit on the bytes of a head that are read. Browsers send fewer: their URLs have 2 MiB at most.
  static constexpr size_t kLimit = size_t{4} << 20;

  // Reads the next bytes of the connection; the first call gets the connection's first bytes. A line may end with LF
  // alone, because servers accept that.
  State read(std::string_view bytes);

  // The host name as the client wrote it; an IPv6 address without its brackets.
  const std::string& name() const { return name_; }

 private:
  enum class Part { Method, Target, FieldName, OtherField, HostField };

  State readPiece(std::string_view piece);
  State finishLine();
  State takeHost();

  State state_ = State::Open;
  Part part_ = Part::Method;
  size_t read_ = 0;
  std::string kept_;  // what is needed of the current part: method, end of the request line, field's name, or host
  std::string name_;
};

}  // namespace orvane

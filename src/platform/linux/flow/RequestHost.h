#pragma once

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/base/HostName.h"

namespace orvane {

// The longest head that parse_request_head() accepts, in bytes.
inline constexpr size_t kRequestHeadLimit = 65536;

using RequestParser = boost::beast::http::request_parser<boost::beast::http::empty_body>;

// Whether the bytes can begin a request line: a method of at most 31 letters, digits and hyphens, then a space. Check
// this before parsing: the parser waits for the end of the head before it rejects TLS or another protocol.
bool may_be_request(std::string_view bytes);

// Parses a request head. `parser` must be new, and `bytes` must begin with the head's first byte. Returns the length of
// the head, including the empty line at its end. On failure returns 0 and sets `error`; if the head is incomplete,
// `error` is need_more.
size_t parse_request_head(RequestParser& parser, std::string_view bytes, boost::beast::error_code& error);

// "host[:port]" (RFC 3986, section 3.2).
struct Authority {
  std::string host;  // as written, percent-encoding included; an IPv6 address without its brackets
  bool isAddress;
  std::optional<uint16_t> port;  // never 0
};

// Returns nothing for an authority with user information, port 0, or no host.
std::optional<Authority> parse_authority(std::string_view text);

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

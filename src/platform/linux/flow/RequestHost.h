#pragma once

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvane {

// The longest request head that is read, in bytes.
inline constexpr size_t kRequestHeadLimit = 65536;

using RequestParser = boost::beast::http::request_parser<boost::beast::http::empty_body>;

// Whether the bytes can begin a request line: a method of at most 31 letters, digits and hyphens, then a space. The
// parser would wait for the end of the head before it rejects TLS or another protocol.
bool may_be_request(std::string_view bytes);

// Parses a request head from its first byte, with a new parser. Returns the bytes that the head has, with the empty
// line. On an error returns 0; the error is need_more while the head is incomplete.
size_t parse_request_head(RequestParser& parser, std::string_view bytes, boost::beast::error_code& error);

// "host[:port]" (RFC 3986, section 3.2).
struct Authority {
  std::string host;  // as written, percent-encoding included; an IPv6 address without its brackets
  bool isAddress;
  std::optional<uint16_t> port;  // never 0
};

// Returns nothing for an authority with user information, port 0, or no host.
std::optional<Authority> parse_authority(std::string_view text);

// The host name, without a port, in the Host field of a request head to an origin server. Sets `open` when the head is
// incomplete and more bytes can complete it.
std::optional<std::string> parse_request_host(std::string_view bytes, bool& open);

}  // namespace orvane

#include "platform/linux/flow/RequestHost.h"

#include <algorithm>
#include <boost/url/authority_view.hpp>
#include <boost/url/parse.hpp>
#include <cctype>

namespace orvane {

namespace http = boost::beast::http;

bool may_be_request(std::string_view bytes) {
  std::string_view method = bytes.substr(0, std::min<size_t>(bytes.find(' '), 32));
  if (method.empty()) return bytes.empty();
  return std::all_of(method.begin(), method.end(), [](unsigned char c) { return std::isalnum(c) || c == '-'; }) &&
         (method.size() < 32);
}

size_t parse_request_head(RequestParser& parser, std::string_view bytes, boost::beast::error_code& error) {
  parser.header_limit(static_cast<uint32_t>(kRequestHeadLimit));
  parser.body_limit(boost::none);
  size_t length = parser.put(boost::asio::buffer(bytes.data(), bytes.size()), error);
  if (!error && !parser.is_header_done()) error = http::error::need_more;
  return error ? 0 : length;
}

std::optional<Authority> parse_authority(std::string_view text) {
  auto parsed = boost::urls::parse_authority(boost::urls::string_view(text.data(), text.size()));
  if (!parsed || parsed->has_userinfo()) return std::nullopt;
  Authority authority;
  switch (parsed->host_type()) {
    case boost::urls::host_type::ipv4:
    case boost::urls::host_type::ipv6:
      authority.host = parsed->host_address();
      authority.isAddress = true;
      break;
    case boost::urls::host_type::name: {
      // Not decoded: a decoded name could hold a NUL, and the filter and the resolver would then read different names.
      boost::urls::string_view name = parsed->encoded_host();
      authority.host.assign(name.data(), name.size());
      authority.isAddress = false;
      break;
    }
    default:
      return std::nullopt;
  }
  if (authority.host.empty()) return std::nullopt;
  if (parsed->has_port() && !parsed->port().empty()) {
    if (parsed->port_number() == 0) return std::nullopt;
    authority.port = parsed->port_number();
  }
  return authority;
}

std::optional<std::string> parse_request_host(std::string_view bytes, bool& open) {
  open = false;
  if (!may_be_request(bytes)) return std::nullopt;
  // The first line decides between HTTP and other protocols that begin with letters (SMTP): their servers must answer
  // that line before the client sends more.
  size_t line = bytes.find("\r\n");
  if (line != std::string_view::npos && bytes.substr(0, line).find(" HTTP/1.") == std::string_view::npos) {
    return std::nullopt;
  }
  RequestParser parser;
  boost::beast::error_code error;
  parse_request_head(parser, bytes, error);
  open = error == http::error::need_more;
  if (error) return std::nullopt;
  auto field = parser.get()[http::field::host];
  auto authority = parse_authority({field.data(), field.size()});
  if (!authority) return std::nullopt;
  return std::move(authority->host);
}

}  // namespace orvane

#include "platform/linux/proxy/ProxyHead.h"

#include <strings.h>

#include <algorithm>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <set>

#include "platform/names/Authority.h"
#include "platform/names/RequestHost.h"

namespace orvane {
namespace {

namespace http = boost::beast::http;

using RequestParser = http::request_parser<http::empty_body>;

std::string_view view(boost::beast::string_view text) { return {text.data(), text.size()}; }

ProxyHead refused(unsigned status, const char* reason) { return {ProxyHead::State::Refused, {}, status, reason}; }

// The parts of an absolute http URL that go to the origin server (RFC 9112, section 3.2.2).
struct Target {
  std::string_view authority;  // without user information
  std::string path;            // with the query
};

Target split_target(std::string_view url, std::string_view method) {
  std::string_view rest = url.substr(std::string_view("http://").size());
  rest = rest.substr(0, rest.find('#'));
  std::string_view authority = rest.substr(0, rest.find_first_of("/?"));
  std::string path(rest.substr(authority.size()));
  if (path.empty() && method == "OPTIONS") {
    path = "*";
  } else if (path.empty() || path.front() == '?') {
    path.insert(0, "/");
  }
  if (size_t at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  return {authority, std::move(path)};
}

// Upper and lower case count as equal.
using FieldNames = std::set<boost::beast::string_view, boost::beast::iless>;

// The field names that the message's Connection fields list (RFC 9110, section 7.6.1).
FieldNames connection_options(const RequestParser::value_type& message) {
  FieldNames names;
  auto [first, last] = message.equal_range(http::field::connection);
  for (; first != last; ++first) {
    for (auto name : http::token_list(first->value())) names.insert(name);
  }
  return names;
}

// Whether a field is about the client's connection to the proxy and must not be forwarded: because of its name, or
// because `listed` contains it. Transfer-Encoding is forwarded, because the body is forwarded in the client's coding.
bool is_hop_by_hop(const http::fields::value_type& field, const FieldNames& listed) {
  switch (field.name()) {
    case http::field::connection:
    case http::field::keep_alive:
    case http::field::proxy_authenticate:
    case http::field::proxy_authorization:
    case http::field::proxy_connection:
    case http::field::te:
    case http::field::upgrade:
      return true;
    case http::field::transfer_encoding:
    case http::field::content_length:
      return false;
    default:
      return listed.count(field.name_string()) > 0;
  }
}

std::string forwarded_head(const RequestParser::value_type& message, const Target& target) {
  std::string head(view(message.method_string()));
  // The server gets the client's HTTP version, because a client that speaks HTTP/1.0 cannot read a chunked response.
  head.append(" ").append(target.path).append(message.version() == 10 ? " HTTP/1.0\r\n" : " HTTP/1.1\r\n");
  head.append("Host: ").append(target.authority).append("\r\n");
  FieldNames listed = connection_options(message);
  for (const auto& field : message) {
    if (field.name() == http::field::host || is_hop_by_hop(field, listed)) continue;
    head.append(view(field.name_string())).append(": ").append(view(field.value())).append("\r\n");
  }
  return head.append("Connection: close\r\n\r\n");
}

ProxyHead tunnel_request(const RequestParser::value_type& message) {
  auto authority = parse_authority(view(message.target()));
  if (!authority || !authority->port) return refused(400, "The target of CONNECT must be HOST:PORT.");
  ProxyHead head{ProxyHead::State::Complete};
  head.request.form = ProxyRequest::Form::Tunnel;
  head.request.host = std::move(authority->host);
  head.request.hostIsAddress = authority->isAddress;
  head.request.port = *authority->port;
  return head;
}

ProxyHead forward_request(const RequestParser& parser) {
  const RequestParser::value_type& message = parser.get();
  std::string_view url = view(message.target());
  auto target = split_target(url, view(message.method_string()));
  auto authority = parse_authority(target.authority);
  if (!authority) return refused(400, "The URL of the request has no host that can be understood.");
  if (message.count(http::field::transfer_encoding) > 0 && !parser.chunked()) {
    return refused(501, "The request's body has a transfer coding that is not known here.");
  }
  ProxyHead head{ProxyHead::State::Complete};
  head.request.form = ProxyRequest::Form::Forward;
  head.request.host = std::move(authority->host);
  head.request.hostIsAddress = authority->isAddress;
  head.request.port = authority->port.value_or(80);
  head.request.url = url;
  head.request.head = forwarded_head(message, target);
  head.request.body =
      parser.chunked() ? RequestBody::chunked() : RequestBody::ofLength(parser.content_length().value_or(0));
  return head;
}

bool has_scheme(std::string_view target, std::string_view scheme) {
  return target.size() >= scheme.size() && strncasecmp(target.data(), scheme.data(), scheme.size()) == 0;
}

ProxyHead read_request(const RequestParser& parser) {
  const RequestParser::value_type& message = parser.get();
  if (message.method() == http::verb::connect) return tunnel_request(message);
  std::string_view target = view(message.target());
  if (has_scheme(target, "http://")) return forward_request(parser);
  if (has_scheme(target, "https://")) return refused(400, "An https URL is fetched through a CONNECT to its host.");
  if (target.find("://") != std::string_view::npos) return refused(501, "Only http URLs are fetched here.");
  return refused(400, "This is a proxy: a request's target must be an absolute URL.");
}

// Parses a request head. `parser` must be new, and `bytes` must begin with the head's first byte. Returns the length of
// the head, including the empty line at its end. On failure returns 0 and sets `error`; if the head is incomplete,
// `error` is need_more.
size_t parse_request_head(RequestParser& parser, std::string_view bytes, boost::beast::error_code& error) {
  parser.header_limit(static_cast<uint32_t>(kRequestHeadLimit));
  parser.body_limit(boost::none);
  size_t length = parser.put(boost::asio::buffer(bytes.data(), bytes.size()), error);
  if (!error && !parser.is_header_done()) error = http::error::need_more;
  return error ? 0 : length;
}

}  // namespace

ProxyHead parse_proxy_head(std::string_view bytes) {
  if (!may_be_request(bytes)) return refused(400, "This is no HTTP request.");
  if (bytes.empty()) return {ProxyHead::State::Incomplete};
  RequestParser parser;
  boost::beast::error_code error;
  size_t length = parse_request_head(parser, bytes, error);
  if (error == http::error::header_limit || (error == http::error::need_more && bytes.size() >= kRequestHeadLimit)) {
    return refused(431, "The head of the request is too large.");
  }
  if (error == http::error::need_more) return {ProxyHead::State::Incomplete};
  if (error) return refused(400, "The head of the request is malformed.");
  ProxyHead head = read_request(parser);
  head.request.length = length;
  return head;
}

RequestBody RequestBody::ofLength(uint64_t bytes) {
  RequestBody body(bytes == 0 ? State::Ended : State::Plain);
  body.remaining_ = bytes;
  return body;
}

RequestBody RequestBody::chunked() { return RequestBody(State::Size); }

size_t RequestBody::take(std::span<const uint8_t> bytes) {
  size_t taken = 0;
  while (taken < bytes.size() && !ended() && !malformed()) {
    if (state_ == State::Plain || state_ == State::Data) {
      size_t step = static_cast<size_t>(std::min<uint64_t>(remaining_, bytes.size() - taken));
      remaining_ -= step;
      taken += step;
      if (remaining_ == 0) state_ = state_ == State::Plain ? State::Ended : State::DataReturn;
    } else {
      state_ = afterFraming(static_cast<char>(bytes[taken++]));
    }
  }
  return taken;
}

// Reads one byte of the framing of chunks (RFC 9112, section 7.1). Lines must end in CR LF, because a server may read
// other line ends differently. If the proxy and the server disagreed about where a body ends, a client could smuggle a
// second request past the filter.
RequestBody::State RequestBody::afterFraming(char byte) {
  auto expect = [byte](char wanted, State next) { return byte == wanted ? next : State::Malformed; };
  switch (state_) {
    case State::Size:
      return afterSizeDigit(byte);
    case State::SizeRest:
      return byte == '\r' ? State::SizeEnd : byte == '\n' ? State::Malformed : State::SizeRest;
    case State::SizeEnd:
      hasSizeDigit_ = false;
      return expect('\n', remaining_ == 0 ? State::Trailer : State::Data);
    case State::DataReturn:
      return expect('\r', State::DataEnd);
    case State::DataEnd:
      return expect('\n', State::Size);
    case State::Trailer:
      return byte == '\r' ? State::LastEnd : byte == '\n' ? State::Malformed : State::TrailerLine;
    case State::TrailerLine:
      return byte == '\r' ? State::TrailerEnd : byte == '\n' ? State::Malformed : State::TrailerLine;
    case State::TrailerEnd:
      return expect('\n', State::Trailer);
    case State::LastEnd:
      return expect('\n', State::Ended);
    default:
      return State::Malformed;
  }
}

RequestBody::State RequestBody::afterSizeDigit(char byte) {
  unsigned digit = 16;
  if (byte >= '0' && byte <= '9') digit = static_cast<unsigned>(byte - '0');
  if (byte >= 'a' && byte <= 'f') digit = static_cast<unsigned>(byte - 'a') + 10;
  if (byte >= 'A' && byte <= 'F') digit = static_cast<unsigned>(byte - 'A') + 10;
  if (digit < 16) {
    if (remaining_ >> 60 != 0) return State::Malformed;
    remaining_ = remaining_ << 4 | digit;
    hasSizeDigit_ = true;
    return State::Size;
  }
  if (!hasSizeDigit_) return State::Malformed;
  if (byte == '\r') return State::SizeEnd;
  return byte == ';' || byte == ' ' || byte == '\t' ? State::SizeRest : State::Malformed;
}

}  // namespace orvane

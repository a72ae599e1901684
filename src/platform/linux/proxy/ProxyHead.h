#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace orvane {

// The part of a request that follows its head (RFC 9112, section 6).
class RequestBody {
 public:
  static RequestBody ofLength(uint64_t bytes);
  static RequestBody chunked();

  // Returns how many of the next bytes belong to the body: all, unless the body ends or is malformed.
  size_t take(std::span<const uint8_t> bytes);

  bool ended() const { return state_ == State::Ended; }
  bool malformed() const { return state_ == State::Malformed; }

 private:
  enum class State {
    Plain,
    Size,
    SizeRest,
    SizeEnd,
    Data,
    DataReturn,
    DataEnd,
    Trailer,
    TrailerLine,
    TrailerEnd,
    LastEnd,
    Ended,
    Malformed
  };

  explicit RequestBody(State state) : state_(state) {}
  State afterFraming(char byte);
  State afterSizeDigit(char byte);

  State state_;
  uint64_t remaining_ = 0;  // bytes left of the body or chunk; while a chunk's size is read, the size so far
  bool hasSizeDigit_ = false;
};

// What a client asks the proxy for.
struct ProxyRequest {
  // Tunnel: a CONNECT. Forward: a request whose target is an absolute http URL.
  enum class Form { Tunnel, Forward };

  Form form;
  std::string host;  // as the client wrote it; an IPv6 address without its brackets
  bool hostIsAddress;
  uint16_t port;
  size_t length;  // length of the head in bytes, including the empty line

  // Set only for the form Forward:
  std::string url;   // as the client wrote it
  std::string head;  // for the origin server: origin form, without hop-by-hop fields, with Connection: close
  RequestBody body = RequestBody::ofLength(0);
};

struct ProxyHead {
  enum class State { Incomplete, Complete, Refused };

  State state;
  ProxyRequest request{};        // when Complete
  unsigned status = 0;           // when Refused: 400, 431 or 501
  const char* reason = nullptr;  // when Refused: one line for the client's user
};

// The longest head that parse_proxy_head() accepts, in bytes.
inline constexpr size_t kRequestHeadLimit = 65536;

// Reads the head of a request to the proxy from the first bytes of a connection (RFC 9112, sections 3.2.2 and 3.2.3).
// Refuses as soon as the bytes cannot become a head that the proxy serves.
ProxyHead parse_proxy_head(std::string_view bytes);

}  // namespace orvane

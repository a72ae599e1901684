#include <gtest/gtest.h>

#include <tuple>

#include "platform/linux/proxy/ProxyHead.h"

namespace orvane {
namespace {

TEST(ProxyHead, RefusesRequestsThatItDoesNotServe) {
  // The status is 0 if the head is incomplete.
  const std::tuple<const char*, std::string, unsigned> kCases[] = {
      {"incomplete", "CONNECT a.example:443 HTTP/1.1\r\nHost: a.exa", 0},
      {"TLS", std::string("\x16\x03\x01\x02\x00", 5), 400},
      {"no port", "CONNECT a.example HTTP/1.1\r\n\r\n", 400},
      {"a port that is too large", "CONNECT a.example:65537 HTTP/1.1\r\n\r\n", 400},
      {"no URL", "GET / HTTP/1.1\r\nHost: a.example\r\n\r\n", 400},
      {"two framings", "POST http://a.example/ HTTP/1.1\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n",
       400},
      {"two lengths", "POST http://a.example/ HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n", 400},
      {"too long", "GET http://a.example/ HTTP/1.1\r\nX: " + std::string(kRequestHeadLimit, 'x'), 431},
  };
  for (const auto& [name, text, status] : kCases) {
    ProxyHead head = parse_proxy_head(text);
    EXPECT_EQ(head.state == ProxyHead::State::Complete ? 200 : head.status, status) << name;
  }
}

TEST(ProxyHead, KeepsTheDestinationAsWritten) {
  const std::tuple<std::string, std::string, uint16_t, bool, std::string> kCases[] = {
      {"CONNECT Held.Example.:443", "Held.Example.", 443, false, ""},
      {"CONNECT [2001:db8::1]:8443", "2001:db8::1", 8443, true, ""},
      {"GET http://a.example?q#part", "a.example", 80, false, "GET /?q HTTP/1.1\r\nHost: a.example\r\n"},
      {"GET HTTP://a.b:81/p?x={\"|\"}", "a.b", 81, false, "GET /p?x={\"|\"} HTTP/1.1\r\nHost: a.b:81\r\n"},
      {"GET http://[::1]:81/", "::1", 81, true, "GET / HTTP/1.1\r\nHost: [::1]:81\r\n"},
      {"GET http://a%00b.example/", "a%00b.example", 80, false, "GET / HTTP/1.1\r\nHost: a%00b.example\r\n"},
  };
  for (const auto& [line, host, port, isAddress, sent] : kCases) {
    SCOPED_TRACE(line);
    std::string bytes = line + " HTTP/1.1\r\nHost: lie.example\r\n\r\n";
    ProxyRequest request = parse_proxy_head(bytes + "rest").request;
    EXPECT_EQ(std::tie(request.host, request.port, request.hostIsAddress), std::tie(host, port, isAddress));
    EXPECT_EQ(request.length, bytes.size());
    EXPECT_EQ(request.head, sent.empty() ? "" : sent + "Connection: close\r\n\r\n");
  }
}

TEST(RequestBody, EndsWhereTheFramingSays) {
  const std::tuple<const char*, std::string_view, size_t, bool, bool> kCases[] = {
      {"a length", "12345GET", 5, false, false},
      {"a chunk", "3\r\nabc\r\n0\r\n\r\nGET", 13, true, false},
      {"an extension and trailers", "A;x=\"y\"\r\n0123456789\r\n00\r\nT: v\r\nU: w\r\n\r\nGET", 39, true, false},
      {"a bare LF", "3\nabc", 2, true, true},
  };
  for (const auto& [name, text, length, isChunked, isMalformed] : kCases) {
    std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    for (size_t piece : {bytes.size(), size_t{1}}) {
      RequestBody body = isChunked ? RequestBody::chunked() : RequestBody::ofLength(5);
      size_t taken = 0;
      for (size_t at = 0; at < bytes.size(); at += piece) taken += body.take(bytes.subspan(at, piece));
      EXPECT_EQ(taken, length) << name;
      EXPECT_EQ(body.malformed(), isMalformed) << name;
      EXPECT_EQ(body.ended(), !isMalformed) << name;
    }
  }
}

}  // namespace
}  // namespace orvane

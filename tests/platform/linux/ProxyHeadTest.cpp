#include <gtest/gtest.h>

#include <cstring>

#include "platform/linux/ProxyHead.h"

namespace orvane {
namespace {

std::span<const uint8_t> bytes_of(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(ProxyHead, RefusesWhatItDoesNotServe) {
  const struct {
    std::string head;
    unsigned status;  // 0: incomplete
  } kCases[] = {
      {"", 0},
      {"CONNECT a.example:443 HTTP/1.1\r\nHost: a.exa", 0},
      {std::string("\x16\x03\x01\x02\x00", 5), 400},
      {"GET http://a.example/\r\n\r\n", 400},
      {"GET http://a.example/ HTTP/1.1\r\nno colon\r\n\r\n", 400},
      {"CONNECT a.example HTTP/1.1\r\n\r\n", 400},
      {"CONNECT a.example:0 HTTP/1.1\r\n\r\n", 400},
      {"CONNECT a.example:70000 HTTP/1.1\r\n\r\n", 400},
      {"CONNECT user@a.example:443 HTTP/1.1\r\n\r\n", 400},
      {"CONNECT :443 HTTP/1.1\r\n\r\n", 400},
      {"CONNECT [::1:443 HTTP/1.1\r\n\r\n", 400},
      {"GET / HTTP/1.1\r\nHost: a.example\r\n\r\n", 400},
      {"OPTIONS * HTTP/1.1\r\nHost: a.example\r\n\r\n", 400},
      {"GET https://a.example/ HTTP/1.1\r\n\r\n", 400},
      {"GET ftp://a.example/ HTTP/1.1\r\n\r\n", 501},
      {"GET http:///path HTTP/1.1\r\n\r\n", 400},
      {"GET http:// HTTP/1.1\r\n\r\n", 400},
      {"POST http://a.example/ HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n", 501},
      {"POST http://a.example/ HTTP/1.1\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n", 400},
      {"POST http://a.example/ HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n", 400},
      {"GET http://a.example/ HTTP/1.1\r\nX: " + std::string(kProxyHeadLimit, 'x'), 431},
      {"GET http://a.example/ HTTP/1.1\r\nX: " + std::string(kProxyHeadLimit, 'x') + "\r\n\r\n", 431},
  };
  for (const auto& c : kCases) {
    ProxyHead head = parse_proxy_head(c.head);
    EXPECT_EQ(head.state == ProxyHead::State::Incomplete ? 0 : head.status, c.status) << c.head.substr(0, 90);
    EXPECT_NE(head.state, ProxyHead::State::Complete) << c.head.substr(0, 90);
  }
}

TEST(ProxyHead, FindsTheDestinationAsWritten) {
  const struct {
    std::string line;
    std::string host;
    const char* sent;  // the first two lines for the origin server
    uint16_t port;
    bool isAddress;
  } kCases[] = {
      {"CONNECT Held.Example.:443", "Held.Example.", "", 443, false},
      {"CONNECT 192.0.2.1:80", "192.0.2.1", "", 80, true},
      {"CONNECT [2001:db8::1]:8443", "2001:db8::1", "", 8443, true},
      {"GET http://a.example", "a.example", "GET / HTTP/1.1\r\nHost: a.example\r\n", 80, false},
      {"GET http://a.example?q#part", "a.example", "GET /?q HTTP/1.1\r\nHost: a.example\r\n", 80, false},
      {"GET HTTP://a.example:81/p?x={\"|\"}", "a.example", "GET /p?x={\"|\"} HTTP/1.1\r\nHost: a.example:81\r\n", 81,
       false},
      {"GET http://u:p@a.example/@b", "a.example", "GET /@b HTTP/1.1\r\nHost: a.example\r\n", 80, false},
      {"GET http://[::1]:81/", "::1", "GET / HTTP/1.1\r\nHost: [::1]:81\r\n", 81, true},
      {"OPTIONS http://a.example", "a.example", "OPTIONS * HTTP/1.1\r\nHost: a.example\r\n", 80, false},
      {"GET http://a%00b.example/", "a%00b.example", "GET / HTTP/1.1\r\nHost: a%00b.example\r\n", 80, false},
  };
  for (const auto& c : kCases) {
    std::string bytes = c.line + " HTTP/1.1\r\nHost: lie.example\r\n\r\n";
    ProxyHead head = parse_proxy_head(bytes + "rest");
    ASSERT_EQ(head.state, ProxyHead::State::Complete) << c.line;
    EXPECT_EQ(head.request.host, c.host);
    EXPECT_EQ(head.request.port, c.port) << c.line;
    EXPECT_EQ(head.request.hostIsAddress, c.isAddress) << c.line;
    EXPECT_EQ(head.request.length, bytes.size());
    EXPECT_EQ(head.request.head.substr(0, strlen(c.sent)), c.sent);
    EXPECT_EQ(head.request.head.find("lie"), std::string::npos);
  }
}

TEST(ProxyHead, KeepsFieldsOfThisConnectionFromTheServer) {
  ProxyHead head = parse_proxy_head(
      "POST http://a.example/ HTTP/1.0\r\nKeep-Alive: 1\r\nConnection: x-mine, close\r\nconnection: X-Other\r\n"
      "X-Mine: 1\r\nx-other: 2\r\nProxy-Connection: a\r\nProxy-Authorization: b\r\nTE: c\r\nUpgrade: d\r\n"
      "Accept: e\r\nContent-Length: 5\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(head.request.head,
            "POST / HTTP/1.0\r\nHost: a.example\r\nAccept: e\r\nContent-Length: 5\r\nExpect: 100-continue\r\n"
            "Connection: close\r\n\r\n");
}

TEST(RequestBody, EndsWhereTheFramingSays) {
  const struct {
    const char* body;
    size_t taken;
    bool chunked;
    bool malformed;
  } kCases[] = {
      {"12345GET", 5, false, false},
      {"3\r\nabc\r\n0\r\n\r\nGET", 13, true, false},
      {"A;x=\"y\"\r\n0123456789\r\n00\r\nT: v\r\nU: w\r\n\r\nGET", 39, true, false},
      {"3\nabc", 2, true, true},
      {"\r\n", 1, true, true},
      {"3\r\nabcd", 7, true, true},
      {"11111111111111111\r\n", 17, true, true},
      {"0\r\n\r\r", 5, true, true},
  };
  for (const auto& c : kCases) {
    RequestBody whole = c.chunked ? RequestBody::chunked() : RequestBody::ofLength(5);
    EXPECT_EQ(whole.take(bytes_of(c.body)), c.taken) << c.body;
    EXPECT_EQ(whole.malformed(), c.malformed) << c.body;
    EXPECT_EQ(whole.ended(), !c.malformed) << c.body;
    RequestBody split = c.chunked ? RequestBody::chunked() : RequestBody::ofLength(5);
    size_t taken = 0;
    for (const char* at = c.body; *at != '\0'; ++at) taken += split.take(bytes_of({at, 1}));
    EXPECT_EQ(taken, c.taken) << c.body;
  }
}

}  // namespace
}  // namespace orvane

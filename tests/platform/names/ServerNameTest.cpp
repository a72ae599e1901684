#include <gtest/gtest.h>

#include "platform/names/ServerName.h"
#include "support/ClientHello.h"

namespace orvane {
namespace {

using enum NameState;

using tls::extension;
using tls::hello;
using tls::server_name;
using tls::with_length;

std::string request(const std::string& fields, const std::string& target = "/") {
  return "GET " + target + " HTTP/1.1\r\n" + fields + "\r\n";
}

struct Case {
  const char* what;
  std::string bytes;
  ServerNameReader::State state;
  std::string name{};
  bool isHidden = false;
};

void expect(const Case& c) {
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(c.bytes.data()), c.bytes.size());
  for (const size_t step : {bytes.size() + 1, size_t{1}, size_t{7}}) {
    ServerNameReader reader;
    for (size_t at = 0; at < bytes.size(); at += step) {
      reader.read(bytes.subspan(at, std::min(step, bytes.size() - at)));
    }
    EXPECT_EQ(reader.state(), c.state) << c.what << ", " << step << " bytes at a time";
    EXPECT_EQ(reader.name(), c.name) << c.what;
    // In small steps, isNameHidden() may be true before the rest of the hello shows that it has no encrypted hello.
    if (c.isHidden || step > bytes.size()) {
      EXPECT_EQ(reader.isNameHidden(), c.isHidden) << c.what;
    }
  }
}

TEST(ServerName, IsReadFromARequestAtTheEndOfTheHostLine) {
  const std::string kilobytes(256 << 10, 'x');
  const Case kCases[] = {
      {"the end of the line is enough", "GET / HTTP/1.1\r\nHost: a.example\r\n", Known, "a.example"},
      {"the line has not ended", "GET / HTTP/1.1\r\nHost: a.example", Open},
      {"capitals, spaces, a port and the final dot", request("hOsT:\t A.Example.:80 \r\n"), Known, "a.example"},
      {"a long URL", request("Host: a.example\r\n", "/?" + kilobytes), Known, "a.example"},
      {"long cookies ahead", request("Cookie: " + kilobytes + "\r\nHost: a.example\r\n"), Known, "a.example"},
      {"lines that end in LF alone", "GET / HTTP/1.1\nHost: a.example\n", Known, "a.example"},
      {"an IPv6 address", request("Host: [2001:DB8::1]:80\r\n"), Known, "2001:db8::1"},
      {"a field that only begins like Host", request("Hosts: a.example\r\n"), Unknown},
      {"a head without a host", request("Accept: */*\r\n"), Unknown},
      {"a host with user information", request("Host: a@b.example\r\n"), Unknown},
      {"a host that is too long", request("Host: " + std::string(600, 'a') + "\r\n"), Unknown},
      {"another protocol's greeting", "EHLO a.example\r\n", Unknown},
      {"bytes that are no method", "\x01\x02", Unknown},
      {"a head beyond the limit", "GET /" + std::string(RequestHostReader::kLimit, 'x'), Unknown},
  };
  for (const Case& c : kCases) expect(c);
}

TEST(ServerName, IsReadFromAHelloBeforeItsLaterExtensionsArrive) {
  const std::string name = server_name("A.Example.");
  const std::string ticket = extension(41, std::string(17000, 't'));
  const std::string whole = hello(name + ticket);
  const Case kCases[] = {
      {"a session ticket behind the name", whole.substr(0, 200), Known, "a.example"},
      {"a session ticket ahead of the name", hello(ticket + name), Known, "a.example"},
      {"records of ten bytes", hello(extension(10, "groups") + name, 10), Known, "a.example"},
      {"half a name", hello(name).substr(0, hello(name).size() - 3), Open},
      {"empty extensions", hello(extension(23, "") + extension(5, "") + name), Known, "a.example"},
      {"no name", hello(extension(10, "groups")), Unknown},
      {"an empty name", hello(server_name("")), Unknown},
      {"a name with a NUL", hello(server_name(std::string("a\0b", 3))), Unknown},
      {"a name of another type", hello(extension(0, with_length('\x01' + with_length("other", 2), 2))), Unknown},
      {"a server hello", '\x16' + std::string("\x03\x01\x00\x05\x02\x00\x00\x01", 8), Unknown},
      {"a record of another type in between", hello(name, 50).substr(0, 55) + "\x17\x03\x01", Unknown},
      {"an empty record", std::string("\x16\x03\x01\x00\x00", 5), Unknown},
      {"an extension longer than the list", hello(std::string("\0\x0a\0\x09", 4)), Unknown},
      {"more than the limit ahead of the name", hello(ticket + name, 1), Unknown},
  };
  for (const Case& c : kCases) expect(c);
}

TEST(ServerName, IsHiddenIfAServicesPublicNameComesWithAnEncryptedHello) {
  const std::string encrypted = extension(0xfe0d, std::string(1, '\0') + std::string(300, 'e'));
  const std::string inner = extension(0xfe0d, "\x01");
  const std::string service = "cloudflare-ech.com", name = server_name(service);
  const Case kCases[] = {
      {"the encrypted hello behind the name", hello(name + extension(5, "") + encrypted), Known, service, true},
      {"the encrypted hello ahead of the name", hello(encrypted + name), Known, service, true},
      {"an inner hello", hello(name + inner), Known, service},
      {"an empty extension", hello(extension(0xfe0d, "") + name), Known, service},
      {"another name, with random bytes as encrypted hello", hello(server_name("a.example") + encrypted), Known,
       "a.example"},
      {"a second name", hello(name + server_name("a.example") + encrypted), Known, service, true},
      {"a malformed extension behind the name", hello(name + std::string("\0\x0a\0\x09", 4)), Known, service},
  };
  for (const Case& c : kCases) expect(c);
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "companion/text/Hostname.h"

namespace orvane {
namespace {

const std::string kLongLabel(63, 'a');
const std::string kLongName = kLongLabel + "." + kLongLabel + "." + kLongLabel + "." + std::string(61, 'b');

TEST(Hostname, TakesTheHostOfPastedText) {
  const std::tuple<const char*, const char*, const char*> kCases[] = {
      {"https://me:pw@a.example:8443/b?c=d@e#f", "a.example", "8443"},
      {"a.example/b?c=https://d.example:1", "a.example", ""},
      {"HTTP://[::1]:80/", "[::1]:80", ""},  // refused as an IP address later
      {"a.example:443", "a.example:443", ""},
      {"https://", "", ""},
      {"*.a.example", "*.a.example", ""},
  };
  for (const auto& [text, host, port] : kCases) {
    EXPECT_EQ(host_in(text), host) << text;
    EXPECT_EQ(port_in(text), port) << text;
  }
}

TEST(Hostname, ConvertsToTheFormThatBrowsersSend) {
  const std::tuple<const char*, std::string, std::string> kCases[] = {
      {"upper case, trailing dot", "Example.COM.", "example.com"},
      {"underscore, hyphens in a row", "_r3---sn-4g5e.example", "_r3---sn-4g5e.example"},
      {"longest name", kLongName + ".", kLongName},
      {"decomposed letter", "bu\u0308cher.example", "xn--bcher-kva.example"},
      {"sharp s, which transitional processing replaces", "fa\u00df.example", "xn--fa-hia.example"},
      {"other dots", "\u65e5\u672c\u8a9e\u3002JP\uff0e", "xn--wgv71a119e.jp"},
      {"a letter and its A-label", "B\u00dccher.XN--bcher-KVA", "xn--bcher-kva.xn--bcher-kva"},
      {"a heart, which only IDNA forbids", "xn--i-7iq.example", "xn--i-7iq.example"},
  };
  for (const auto& [description, given, expected] : kCases) {
    std::string name, fault;
    EXPECT_TRUE(normalize_hostname(given, name, fault)) << description << ": " << fault;
    EXPECT_EQ(name, expected) << description;
  }
}

TEST(Hostname, NamesTheFaultOfAnInvalidName) {
  const struct {
    const char* fault;
    std::vector<std::string> names;
  } kCases[] = {
      {"it is empty", {"", "."}},
      {"it has an empty label", {"a..b", ".a", "a..", "a.\u00ad.b"}},  // UTS #46 removes the soft hyphen
      {"it is a URL", {"https://example.com/", "https://b\u00fccher.example"}},
      {"it has a port or a scheme", {"mailto:me", "example.com:443"}},
      {"it has a path", {"example.com/path", "example.com#top", "a?b", "a\\b"}},
      {"it is a wildcard", {"*.example.com"}},
      {"it has a character", {std::string("a\0b", 3), "a%41", "a\x7f"}},
      {"it has a label of more than 63", {kLongLabel + "a"}},
      {"it has more than 253", {kLongName + "b"}},
      {"it is an IP address", {"127.0.0.1.", "127.1", "0x7F000001", "a.0x", "\uff11.\uff12", "[::1]", "::1"}},
      {"it is not UTF-8", {"b\xfc.example"}},
      // xn--abc- is invalid because it decodes to plain ASCII.
      {"it is not a valid international", {"xn--a.b", "xn--abc-.b", "1\u05d0\u05d1.example", "a\u2028b.example"}},
      {"it ", {"\u00fc\uff0fx"}},  // U+FF0F maps to a slash; libidn2 and ICU report different faults
  };
  for (const auto& c : kCases) {
    for (const std::string& given : c.names) {
      std::string name, fault;
      EXPECT_FALSE(normalize_hostname(given, name, fault)) << given << " became " << name;
      EXPECT_EQ(fault.substr(0, std::string(c.fault).size()), c.fault) << given;
    }
  }
}

}  // namespace
}  // namespace orvane

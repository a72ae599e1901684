#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "companion/text/Hostname.h"
#include "companion/text/Input.h"

namespace orvane {
namespace {

const std::string kLongLabel(63, 'a');
const std::string kLongName = kLongLabel + "." + kLongLabel + "." + kLongLabel + "." + std::string(61, 'b');

TEST(Hostname, TakesTheHostOfPastedText) {
  const std::tuple<const char*, const char*, const char*> kCases[] = {
      {"https://me:pw@a.example:8443/b?c=d@e#f", "a.example", "8443"},
      {"a.example/b?c=https://d.example:1", "a.example", ""},
      {"HTTP://[::1]:80/", "[::1]:80", ""},  // refused as an IP address later
      {"a.example:443", "a.example", "443"},
      {"a.example:443/b", "a.example", "443"},
      {"a.example:b", "a.example:b", ""},
      {"::1", "::1", ""},
      {"https://", "https://", ""},  // the rest are refused later
      {"file:///etc", "file:///etc", ""},
      {"http:a.example/b", "http:a.example/b", ""},
      {"http:/a.example", "http:/a.example", ""},
      {"HTTPS//a.example", "HTTPS//a.example", ""},
      {"httpsa.example/b", "httpsa.example", ""},
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
  const std::pair<const char*, std::vector<std::string>> kCases[] = {
      {"it is empty", {"", "."}},
      {"it has an empty label", {"a..b", ".a", "a..", "a.\u00ad.b"}},  // UTS #46 removes the soft hyphen
      {"it is a URL", {"https://example.com/", "https://b\u00fccher.example", "https://\x1b[2J\u202e/"}},
      {"it is an address without a host", {"https://", "file:///etc/hosts"}},
      {"it has a port or a scheme", {"mailto:me", "example.com:443", "http:/example.com", "a:b:c", "x:0:0::/root"}},
      {"it has a path", {"example.com/path", "example.com#top", "a?b", "a\\b"}},
      {"it is a wildcard", {"*.example.com"}},
      {"it has a character", {std::string("a\0b", 3), "a%41", "a\x7f", "[a:b:c]"}},
      {"it has a label of more than 63", {kLongLabel + "a"}},
      {"it has more than 253", {kLongName + "b"}},
      {"it is an IP address", {"[::1]", "::1", "[::1]:80", "fe80::1%eth0", "2001:db8::/32"}},
      {"it ends in a number", {"127.0.0.1.", "127.1", "0x7F000001", "a.0x", "\uff11.\uff12", "example.123"}},
      {"it is not UTF-8", {"b\xfc.example"}},
      // xn--abc- is invalid because it decodes to plain ASCII.
      {"it is not a valid international", {"xn--a.b", "xn--abc-.b", "1\u05d0\u05d1.example", "a\u2028b.example"}},
      {"it ", {"\u00fc\uff0fx"}},  // U+FF0F maps to a slash; libidn2 and ICU report different faults
  };
  for (const auto& [begin, names] : kCases) {
    for (const std::string& given : names) {
      std::string name, fault;
      EXPECT_FALSE(normalize_hostname(given, name, fault)) << given << " became " << name;
      EXPECT_EQ(fault.substr(0, std::string(begin).size()), begin) << given;
      EXPECT_EQ(printable(fault, false), fault) << given;
    }
  }
}

TEST(Printable, EscapesWhatControlsATerminalOrTheOrderOfText) {
  const std::tuple<const char*, std::string, const char*> kCases[] = {
      {"letters", "b\u00fccher \u65e5 \U0001f600", "b\u00fccher \u65e5 \U0001f600"},
      {"C0 and DEL", std::string("\0\x1b\n\x7f", 4), R"(\x00\x1b\x0a\x7f)"},
      {"C1", "\u009b1m", R"(\xc2\x9b1m)"},
      {"direction and line ends", "\u202e\u2066\u2028", R"(\xe2\x80\xae\xe2\x81\xa6\xe2\x80\xa8)"},
      {"not UTF-8", "a\xfc\xe6\x97", R"(a\xfc\xe6\x97)"},
      {"overlong forms and surrogates", "\xc0\x9b\xed\xa0\x80", R"(\xc0\x9b\xed\xa0\x80)"},
  };
  for (const auto& [what, text, expected] : kCases) EXPECT_EQ(printable(text, false), expected) << what;
}

}  // namespace
}  // namespace orvane

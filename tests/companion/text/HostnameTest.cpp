#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "companion/text/Hostname.h"
#include "companion/text/HostnameList.h"

namespace orvane {
namespace {

const std::string kLongLabel(63, 'a');
const std::string kLongName = kLongLabel + "." + kLongLabel + "." + kLongLabel + "." + std::string(61, 'b');

TEST(Hostname, TakesTheFormThatBrowsersSend) {
  const std::pair<std::string, std::string> kCases[] = {
      {"Example.COM.", "example.com"},
      {"_r3---sn-4g5e.example", "_r3---sn-4g5e.example"},
      {kLongName + ".", kLongName},
      {"bu\u0308cher.example", "xn--bcher-kva.example"},  // decomposed
      {"fa\u00df.example", "xn--fa-hia.example"},         // transitional processing would make it fass.example
      {"\u65e5\u672c\u8a9e\u3002JP\uff0e", "xn--wgv71a119e.jp"},
      {"B\u00dccher.XN--bcher-KVA", "xn--bcher-kva.xn--bcher-kva"},
      {"xn--i-7iq.example", "xn--i-7iq.example"}  // a heart: IDNA forbids it, browsers do not
  };
  for (const auto& [given, expected] : kCases) {
    std::string name, fault;
    EXPECT_TRUE(normalize_hostname(given, name, fault)) << given << ": " << fault;
    EXPECT_EQ(name, expected) << given;
  }
}

TEST(Hostname, RefusesWhatNoBrowserSendsAndSaysWhy) {
  const std::pair<std::string, std::vector<std::string>> kCases[] = {
      {"it is empty", {"", "."}},
      {"it has an empty label", {"a..b", ".a", "a..", "a.\u00ad.b"}},  // a soft hyphen is nothing
      {"it is a URL", {"https://example.com/", "https://b\u00fccher.example"}},
      {"it has a port or a scheme", {"mailto:me", "example.com:443"}},
      {"it has a path", {"example.com/path", "example.com#top", "a?b", "a\\b"}},
      {"it is a wildcard", {"*.example.com"}},
      {"it has a character", {std::string("a\0b", 3), "a%41", "a\x7f"}},
      {"it has a label of more than 63", {kLongLabel + "a"}},
      {"it has more than 253", {kLongName + "b"}},
      {"it is an IP address", {"127.0.0.1.", "127.1", "0x7F000001", "a.0x", "\uff11.\uff12", "[::1]", "::1"}},
      {"it is not UTF-8", {"b\xfc.example"}},
      // The letters of xn--abc- need no A-label.
      {"it is no valid international name", {"xn--a.b", "xn--abc-.b", "1\u05d0\u05d1.example", "a\u2028b.example"}},
      {"it ", {"\u00fc\uff0fx"}},  // maps to a solidus: a character of no name, or a path
  };
  for (const auto& [expected, all] : kCases) {
    for (const std::string& given : all) {
      std::string name, fault;
      EXPECT_FALSE(normalize_hostname(given, name, fault)) << given << " became " << name;
      EXPECT_EQ(fault.substr(0, expected.size()), expected) << given;
    }
  }
}

TEST(HostnameList, CountsEveryLineAndSkipsWhatIsNoName) {
  HostnameList list = parse_hostname_list("\xef\xbb\xbf# x\r\nA.example\r\n\r\n \tb.example # why\nhttp://c\n#d\ne.f");
  EXPECT_EQ(list.names, (std::vector<std::string>{"a.example", "b.example", "e.f"}));
  ASSERT_EQ(list.refused.size(), 1u);
  EXPECT_EQ(list.refused[0].line, 5u);
}

}  // namespace
}  // namespace orvane

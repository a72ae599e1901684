#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "companion/Hostname.h"
#include "companion/HostnameList.h"

namespace orvane {
namespace {

std::string repeated(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

TEST(Hostname, TakesTheFormThatBrowsersSend) {
  const std::string longest = repeated("a2345678.", 27) + "b234567890";  // 253 characters
  const std::string longestLabel(63, 'a');
  const std::pair<std::string, std::string> kCases[] = {
      {"Example.COM", "example.com"},
      {"example.com.", "example.com"},
      {"localhost", "localhost"},
      {"_dmarc.ex_ample.com", "_dmarc.ex_ample.com"},
      {"r3---sn-4g5e.example", "r3---sn-4g5e.example"},
      {"1.2.3.4.example", "1.2.3.4.example"},
      {"0xfg", "0xfg"},
      {longest, longest},
      {longest + ".", longest},
      {longestLabel, longestLabel},
      {"B\u00dcCHER.example", "xn--bcher-kva.example"},
      {"bu\u0308cher.example", "xn--bcher-kva.example"},  // decomposed
      {"fa\u00df.example", "xn--fa-hia.example"},         // transitional processing would make it fass.example
      {"\u65e5\u672c\u8a9e\u3002JP\uff0e", "xn--wgv71a119e.jp"},
      {"\uff25xample.com", "example.com"},
      {"R3---sn.b\u00fccher.example", "r3---sn.xn--bcher-kva.example"},
      {"B\u00fccher.XN--bcher-KVA", "xn--bcher-kva.xn--bcher-kva"},
      {"xn--i-7iq.example", "xn--i-7iq.example"}  // a heart: IDNA forbids it, browsers do not
  };
  for (const auto& [given, expected] : kCases) {
    std::string name, fault;
    EXPECT_TRUE(normalize_hostname(given, name, fault)) << given << ": " << fault;
    EXPECT_EQ(name, expected) << given;
  }
}

TEST(Hostname, RefusesWhatNoBrowserSendsAndSaysWhy) {
  const struct {
    std::string fault;  // how it begins
    std::vector<std::string> given;
  } kCases[] = {
      {"it is empty", {"", "."}},
      {"it has an empty label", {"a..b", ".a", "a..", "b\u00fccher..a", "a.\u00ad.b"}},  // a soft hyphen is nothing
      {"it is a URL", {"https://example.com/", "https://b\u00fccher.example"}},
      {"it has a port or a scheme", {"mailto:me", "example.com:443"}},
      {"it has a path", {"example.com/path", "example.com#top", "a?b", "a\\b"}},
      {"it has a user name", {"me@example.com"}},
      {"it is a wildcard", {"*.example.com"}},
      {"it has a space", {"a b", " a", "a\t"}},
      {"it has a character", {std::string("a\0b", 3), "a%41", "a\x7f"}},
      {"it has a label of more than 63", {std::string(64, 'a'), repeated("\u00fc", 80)}},
      {"it has more than 253", {repeated("a2345678.", 27) + "b2345678901"}},
      {"it is an IP address",
       {"127.0.0.1", "127.0.0.1.", "127.1", "0x7F000001", "a.0x", "\uff11.\uff12", "[::1]", "::1"}},
      {"it is not UTF-8", {"b\xfcg"}},
      // The letters of xn--abc- need no A-label, and \uff0f maps to a solidus.
      {"it is no valid international name",
       {"xn--zzzzzzz9999.example", "xn--a.b", "xn--abc-.b", "\u00fc.xn--a", "1\u05d0\u05d1.example", "\u00fc\uff0fx"}},
  };
  std::string name, fault;
  for (const auto& [expected, all] : kCases) {
    for (const std::string& given : all) {
      EXPECT_FALSE(normalize_hostname(given, name, fault)) << given << " became " << name;
      EXPECT_EQ(fault.substr(0, expected.size()), expected) << given;
    }
  }
}

TEST(HostnameList, CountsEveryLineAndSkipsWhatIsNoName) {
  HostnameList list = parse_hostname_list(
      "\xef\xbb\xbf# comment\r\nA.example\r\n\r\n \tb.example # "
      "why\nhttp://c\n#d\ne.example\t#\nf\xfc#g\nlast.example");
  EXPECT_EQ(list.names, (std::vector<std::string>{"a.example", "b.example", "e.example", "last.example"}));
  ASSERT_EQ(list.refused.size(), 2u);
  EXPECT_EQ(list.refused[0].line, 5u);
  EXPECT_EQ(list.refused[0].text, "http://c");
  EXPECT_EQ(list.refused[1].line, 8u);
}

TEST(HostnameList, KeepsABoundedNumberOfRefusalsButCountsAll) {
  HostnameList list = parse_hostname_list(repeated("bad name\n", 1000));
  EXPECT_EQ(list.refused.size(), HostnameList::kRefusalsKept);
  EXPECT_EQ(list.refusedCount, 1000u);
  EXPECT_TRUE(parse_hostname_list("").names.empty());
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include <map>

#include "companion/list/BlockList.h"

namespace orvane {
namespace {

constexpr Moment at(int64_t second) { return Moment(std::chrono::seconds(second)); }

TEST(BlockList, HoldsOneNameForEachLine) {
  const std::pair<const char*, const char*> kCases[] = {
      {"example.com", ".example.com"},
      {"www.example.com", ".example.com"},
      {"m.example.com", ".example.com"},
      {".www.example.com", ".www.example.com"},
      {"nas", ".nas"},
      {"www.com", ".www.com"},
      {"www.gov.uk", ".www.gov.uk"},
      {"github.io", ".github.io"},
      {"m.m.com", ".m.com"},
      {"www.m.example.com", ".www.m.example.com"},
      {"www.example.com only", "www.example.com"},
      {"www.example.com allowed", "!.www.example.com"},
      {"EXAMPLE.com.\tonly until=1970-01-01T00:00:50+00:00 # a note", "example.com"},
  };
  for (const auto& [line, name] : kCases) {
    BlockList list = BlockList::parse(line);
    ASSERT_EQ(list.size(), 1U) << line;
    EXPECT_EQ(name_of(list.sites()[0]), name) << line;
    BlockList copy;
    copy.put(list.sites()[0]);
    EXPECT_EQ(BlockList::parse(copy.text()).sites(), list.sites()) << "written and read: " << line;
  }
}

TEST(BlockList, FindsTheLinesThatDecideAboutAHost) {
  const BlockList list = BlockList::parse(
      "example.com\nx.example.com allowed\na.x.example.com\nexact.test only\n"
      "late.test until=1970-01-01T00:00:50Z\nb.late.test until=1970-01-01T00:00:40Z\nco.uk\n");
  const struct {
    const char *host, *blocking, *exception, *suspended;
  } kCases[] = {
      {"example.com", "example.com", "", ""},
      {"a.b.example.com", "example.com", "", ""},
      {"notexample.com", "", "", ""},
      {"x.example.com", "example.com", "x.example.com", ""},
      {"b.a.x.example.com", "a.x.example.com", "x.example.com", ""},
      {"exact.test", "exact.test", "", ""},
      {"a.exact.test", "", "", ""},
      {"late.test", "", "", "late.test"},
      {"b.late.test", "", "", "b.late.test"},
      {"co.uk", "co.uk", "", ""},
      {"example.co.uk", "", "", ""},
  };
  auto host = [](const ListedSite* site) { return site == nullptr ? "" : site->host; };
  for (const auto& c : kCases) {
    const Decision decision = decide(list, c.host, at(10));
    EXPECT_EQ(host(decision.blocking), c.blocking) << c.host;
    EXPECT_EQ(host(decision.exception), c.exception) << c.host;
    EXPECT_EQ(host(decision.suspended), c.suspended) << c.host;
  }
  EXPECT_EQ(host(decide(list, "b.late.test", at(45)).blocking), "b.late.test");
}

TEST(BlockList, KeepsHandwrittenLines) {
  const std::string text =
      "\xef\xbb\xbf# Mine\r\n\r\nExample.com  # the worst\none.example\nno good\none.example only # twice\n"
      "a.example until=never\n192.0.2.1\na.example allowed until=2030-01-01T00:00:00Z\nlast.example";
  BlockList list = BlockList::parse(text);
  EXPECT_EQ(list.text(), text + "\n");
  std::map<size_t, std::string> bad;
  for (const auto& line : list.badLines()) bad[line.line] = line.text;
  EXPECT_EQ(bad, (std::map<size_t, std::string>{{5, "no good"},
                                                {7, "a.example until=never"},
                                                {8, "192.0.2.1"},
                                                {9, "a.example allowed until=2030-01-01T00:00:00Z"}}));
  EXPECT_EQ(list.find("one.example")->scope, Scope::ExactName) << "the last line counts";

  EXPECT_FALSE(list.put({"example.com", Scope::Subdomains, {}}));
  EXPECT_TRUE(list.put({"example.com", Scope::Subdomains, at(60)}));
  EXPECT_TRUE(list.remove("one.example"));
  EXPECT_EQ(list.find("one.example"), nullptr) << "the earlier line counts again";
  EXPECT_FALSE(list.remove("one.example"));
  EXPECT_TRUE(list.put({"new.example", Scope::ExactName, {}}));
  EXPECT_EQ(list.text(),
            "\xef\xbb\xbf# Mine\r\n\r\nexample.com until=1970-01-01T00:01:00Z  # the worst\nno good\n"
            "a.example until=never\n192.0.2.1\na.example allowed until=2030-01-01T00:00:00Z\nlast.example\n"
            "new.example only\n");
}

TEST(BlockList, HoldsNoSuspendedNames) {
  const BlockList list = BlockList::parse(
      "example.com until=1970-01-01T00:01:40Z\nwww.example.com only\nm.example.com only until=1970-01-01T00:00:50Z\n"
      "past.example only until=1970-01-01T00:00:10Z\nx.example.com allowed\n");
  using Suspended = std::vector<std::pair<std::string, Moment>>;
  HeldNames held = held_names(list, at(10));
  EXPECT_EQ(held.names, (std::vector<std::string>{"!.x.example.com", "past.example", "www.example.com"}));
  EXPECT_EQ(held.suspended, (Suspended{{".example.com", at(100)}, {"m.example.com", at(50)}}));
  EXPECT_EQ(held.nextChange, at(50));
  held = held_names(list, at(100));
  EXPECT_EQ(held.names.size(), 5U);
  EXPECT_FALSE(held.nextChange);
}

}  // namespace
}  // namespace orvane

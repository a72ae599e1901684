#include <gtest/gtest.h>

#include <map>

#include "companion/list/BlockList.h"

namespace orvane {
namespace {

constexpr Moment at(int64_t second) { return Moment(std::chrono::seconds(second)); }

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
  return text;
}

TEST(BlockList, BlocksASiteUnderItsUsualNames) {
  const std::pair<const char*, const char*> kCases[] = {
      {"example.com", "example.com www.example.com m.example.com"},
      {"www.example.com", "example.com www.example.com m.example.com"},
      {"m.example.com", "example.com www.example.com m.example.com"},
      {"nas", "nas"},
      {"www.com", "www.com www.www.com m.www.com"},
      {"m.m.com", "m.com www.m.com m.m.com"},
      {"www.m.example.com", "www.m.example.com www.www.m.example.com m.www.m.example.com"},
      {"www.example.com only", "www.example.com"},
      {"EXAMPLE.com.\tonly until=1970-01-01T00:00:50+00:00 # a note", "example.com"},
  };
  for (const auto& [line, names] : kCases) {
    BlockList list = BlockList::parse(line);
    ASSERT_EQ(list.size(), 1U) << line;
    EXPECT_EQ(joined(names_of(list.sites()[0])), names) << line;
    for (const std::string& name : names_of(list.sites()[0])) EXPECT_NE(list.find(name), nullptr) << name;
    BlockList copy;
    copy.put(list.sites()[0]);
    EXPECT_EQ(BlockList::parse(copy.text()).sites(), list.sites()) << "written and read: " << line;
  }
}

TEST(BlockList, KeepsHandwrittenLines) {
  const std::string text =
      "\xef\xbb\xbf# Mine\r\n\r\nExample.com  # the worst\none.example\nno good\none.example only # twice\n"
      "a.example until=never\n192.0.2.1\nlast.example";
  BlockList list = BlockList::parse(text);
  EXPECT_EQ(list.text(), text + "\n");
  std::map<size_t, std::string> bad;
  for (const auto& line : list.badLines()) bad[line.line] = line.text;
  EXPECT_EQ(bad, (std::map<size_t, std::string>{{5, "no good"}, {7, "a.example until=never"}, {8, "192.0.2.1"}}));
  EXPECT_FALSE(list.find("one.example")->usualNames) << "the last line counts";

  EXPECT_FALSE(list.put({"example.com", true, {}}));
  EXPECT_TRUE(list.put({"www.example.com", true, at(60)}));
  EXPECT_TRUE(list.remove("one.example"));
  EXPECT_EQ(list.find("one.example"), nullptr) << "the earlier line counts again";
  EXPECT_FALSE(list.remove("one.example"));
  EXPECT_TRUE(list.put({"new.example", false, {}}));
  EXPECT_EQ(list.text(),
            "\xef\xbb\xbf# Mine\r\n\r\nexample.com until=1970-01-01T00:01:00Z  # the worst\nno good\n"
            "a.example until=never\n192.0.2.1\nlast.example\nnew.example only\n");
}

TEST(BlockList, HoldsANameUntilAllItsSitesAreSuspended) {
  BlockList list;
  list.put({"example.com", true, at(100)});
  list.put({"www.example.com", false, {}});
  list.put({"m.example.com", false, at(50)});
  list.put({"past.example", false, at(10)});
  using Suspended = std::vector<std::pair<std::string, Moment>>;
  HeldNames held = held_names(list, at(10));
  EXPECT_EQ(joined(held.names), "past.example www.example.com");
  EXPECT_EQ(held.suspended, (Suspended{{"example.com", at(100)}, {"m.example.com", at(50)}}));
  EXPECT_EQ(held.nextChange, at(50));
  held = held_names(list, at(100));
  EXPECT_EQ(held.names.size(), 4U);
  EXPECT_FALSE(held.nextChange);
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <tuple>

#include "companion/list/BlockList.h"
#include "support/TimeZone.h"

namespace orvane {
namespace {

constexpr Moment at(int64_t second) { return Moment(std::chrono::seconds(second)); }

TEST(BlockList, FindsTheSitesThatManyChangesLeave) {
  std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same numbers in each run
  BlockList list;
  std::map<std::string, Scope> expected;
  for (int i = 0; i < 20000; ++i) {
    const std::string host = "same-begin-" + std::to_string(random() % 3000) + ".example";
    const Scope scope = random() % 2 == 0 ? Scope::ExactName : Scope::Subdomains;
    if (random() % 2 == 0) {
      EXPECT_EQ(list.remove(host), expected.erase(host) > 0) << host;
    } else {
      list.put({host, scope, {}});
      expected[host] = scope;
    }
  }
  ASSERT_EQ(list.size(), expected.size());
  std::vector<std::string> names;
  for (const auto& [host, scope] : expected) {
    ASSERT_NE(list.find(host), nullptr) << host;
    names.push_back(name_of({host, scope, {}}));
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(held_names(list, at(0)).names, names);
}

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
  const std::tuple<const char*, const char*, const char*, const char*> kCases[] = {
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
  for (const auto& [asked, blocking, exception, suspended] : kCases) {
    const Decision decision = decide(list, asked, at(10));
    EXPECT_EQ(host(decision.blocking), blocking) << asked;
    EXPECT_EQ(host(decision.exception), exception) << asked;
    EXPECT_EQ(host(decision.suspended), suspended) << asked;
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

TEST(BlockList, KeepsTheSitesOfEachGroupTogether) {
  BlockList list = BlockList::parse(
      "# Mine\n\na.example\n\n# For work\n[group work]  # daily\nschedule = Mon..Fri 09:00-17:00\nb.example\n"
      "[group play]\na.example only\n\n[group work]\nc.example\nschedule=Sat 10:00-12:00\ndelay = 8d\n[other]\n");
  EXPECT_EQ(list.badLines().size(), 2U);
  const GroupIndex work = list.findGroup("work").value(), play = list.findGroup("play").value();
  EXPECT_EQ(list.groups()[work].schedule.texts(),
            (std::vector<std::string>{"Mon..Fri 09:00-17:00", "Sat 10:00-12:00"}));
  EXPECT_EQ(list.find("a.example", play)->scope, Scope::ExactName);
  EXPECT_EQ(list.find("a.example", work), nullptr);
  list.put({"new.example", Scope::Subdomains, {}});
  list.put({"new.example", Scope::ExactName, {}, work});
  list.setSetting(work, kScheduleKey, {"10:00-11:00"});
  list.setSetting(kDefaultGroup, kEnabledKey, {"no"});
  list.removeGroup(play);
  const GroupIndex late = list.addGroup("late");
  list.put({"l.example", Scope::Subdomains, {}, late});
  list.setSetting(late, kDelayKey, {"15m"});
  const std::string text =
      "# Mine\nenabled = no\n\na.example\nnew.example\n\n# For work\n[group work]  # daily\nschedule = 10:00-11:00\n"
      "b.example\n[group work]\nc.example\ndelay = 8d\n[other]\nnew.example only\n\n[group late]\ndelay = "
      "15m\nl.example\n";
  EXPECT_EQ(list.text(), text);
  EXPECT_EQ(BlockList::parse(text).text(), text);
  EXPECT_FALSE(BlockList::parse(text).groups()[kDefaultGroup].isEnabled);
  // A name that is not UTF-8.
  const std::string latin1 = "[group caf\xe9]\na.example\nenabled = no\n[group caf\xc3\xa9]\n";
  list = BlockList::parse("b.example\n" + latin1);
  EXPECT_EQ(list.badLines().size(), 3U);
  EXPECT_EQ(list.find("a.example"), nullptr);
  EXPECT_TRUE(list.groups()[kDefaultGroup].isEnabled);
  list.put({"new.example", Scope::Subdomains, {}});
  EXPECT_EQ(list.text(), "b.example\nnew.example\n" + latin1);
  // Before lists had groups, these lines were hosts. They still are.
  EXPECT_EQ(BlockList::parse("enabled\ndisabled\ngroup\nschedule\n").size(), 4U);
}

TEST(BlockList, HoldsWhatOneOfItsGroupsBlocks) {
  const TimeZone zone("UTC");
  const BlockList list = BlockList::parse(
      "a.example until=1970-01-01T00:05:00Z\nx.example\n[group night]\nschedule = 22:00-06:00\na.example\nn.example\n"
      "y.example until=1970-01-01T00:10:00Z\nx.example allowed\n[group off]\nenabled = no\no.example\na.example\n");
  const std::tuple<const char*, std::vector<std::string>, const char*> kCases[] = {
      {"1970-01-01T00:01:00Z", {"!.x.example", ".a.example", ".n.example", ".x.example"}, "1970-01-01T00:10:00Z"},
      {"1970-01-01T00:10:00Z",
       {"!.x.example", ".a.example", ".n.example", ".x.example", ".y.example"},
       "1970-01-01T06:00:00Z"},
      {"1970-01-01T06:00:00Z", {".a.example", ".x.example"}, "1970-01-01T22:00:00Z"},
  };
  for (const auto& [moment, names, nextChange] : kCases) {
    const HeldNames held = held_names(list, read_moment(moment));
    EXPECT_EQ(held.names, names) << moment;
    EXPECT_TRUE(held.nextChange == read_moment(nextChange)) << moment;
  }
  const Decision decision = decide(list, "n.example", read_moment("1970-01-01T12:00:00Z"));
  EXPECT_EQ(decision.blocking, nullptr);
  EXPECT_EQ(decision.inactive->host, "n.example");
}

}  // namespace
}  // namespace orvane

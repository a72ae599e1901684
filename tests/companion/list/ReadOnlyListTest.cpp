#include <gtest/gtest.h>

#include <deque>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "companion/list/ReadOnlyList.h"
#include "companion/list/UnitedNames.h"
#include "platform/names/Subdomains.h"

namespace orvane {
namespace {

std::string names_of(const ReadOnlyList& list) {
  std::string text;
  for (const auto& [group, names] : list.sections) {
    text += "[" + group + "]";
    for (std::string_view name : names) {
      EXPECT_TRUE(names.contains(name)) << name;
      text.append(" ").append(name);
    }
    EXPECT_FALSE(names.contains("b.example.") || names.contains("") || names.contains("zz"));
  }
  return text;
}

TEST(ReadOnlyList, HasTheLinesThatItMayHave) {
  const std::tuple<const char*, ListKind, const char*, const char*, size_t, bool> kCases[] = {
      {"empty", ListKind::DropIn, "", "", 0, false},
      {"all kinds of lines", ListKind::Subscription,
       "\xef\xbb\xbf# from\r\nwww.B.example\r\na.example only # x\nc.example allowed\n[group ads]\n-d.example\n",
       "[default] !.c.example .b.example a.example[ads] .-d.example", 0, false},
      {"the last line of a host counts", ListKind::DropIn, "a.example\nb.example\na.example allowed\nb.example only",
       "[default] !.a.example b.example", 0, false},
      {"a group in two parts", ListKind::DropIn,
       "[group x]\na.example\n[group default]\nb.example\n[group x]\nc.example",
       "[default] .b.example[x] .a.example .c.example", 0, false},
      {"bad lines", ListKind::Subscription,
       "a..b\na.example until=2030-01-01T00:00:00Z\n[group a b]\nb.example\n[group default]\n"
       "c.example\nx y\n",
       "[default] .c.example", 5, false},
      {"sites below a bad header stay in force", ListKind::DropIn, "[group x]\na.example\n[group a b]\nb.example\n",
       "[default] .b.example[x] .a.example", 1, false},
      {"settings of groups", ListKind::DropIn, "schedule = Sat\nenabled=no\ndelay = 1h\nlock-until=2030-01-01\n", "", 4,
       false},
      {"suspendable", ListKind::DropIn, "a.example\nsuspendable = yes\n", "[default] .a.example", 0, true},
      {"suspendable is a host, too", ListKind::DropIn, "suspendable\n", "[default] .suspendable", 0, false},
      {"suspendable with another value", ListKind::DropIn, "suspendable=no\n", "", 1, false},
      {"suspendable in a subscription", ListKind::Subscription, "suspendable=yes\n", "", 1, false},
  };
  for (const auto& [description, kind, text, names, badLines, isSuspendable] : kCases) {
    std::string goodLines;
    const ReadOnlyList list = ReadOnlyList::parse(text, kind, &goodLines), good = ReadOnlyList::parse(goodLines, kind);
    EXPECT_EQ(names_of(good), names) << description;
    EXPECT_EQ(good.badLineCount, 0U) << description;
    EXPECT_EQ(names_of(list), names) << description;
    EXPECT_EQ(list.badLineCount, badLines) << description;
    EXPECT_EQ(list.badLines.size(), badLines) << description;
    EXPECT_EQ(list.isSuspendable, isSuspendable) << description;
  }
}

// Whether an extension that holds `names` blocks the host (Subdomains.h).
bool is_blocked(const std::vector<std::string>& names, const std::string& host) {
  const auto has = [&](const std::string& name) { return std::binary_search(names.begin(), names.end(), name); };
  bool isBlocked = has(host);
  for (std::string_view covering : covering_hosts(host)) {
    const std::string marked = std::string(kSubdomainsMark).append(covering);
    if (has("!" + marked)) return false;
    isBlocked = isBlocked || has(marked);
  }
  return isBlocked;
}

// Lines are separated by semicolons. The hosts of a row are those that are blocked, then those that are not.
TEST(UnitedNames, BlockWhatTheListsOfEachRankSay) {
  const std::tuple<const char*, const char*, const char*, const char*, const char*, const char*> kCases[] = {
      {"all lists", "a.example", "b.example only", "c.example;a.example", "a.example x.c.example b.example",
       "x.b.example d.example"},
      {"own exception, subscription", "x.a.example allowed", "", "a.example;y.x.a.example", "a.example",
       "x.a.example y.x.a.example"},
      {"own exception, drop-in", "a.example allowed", "a.example", "", "a.example x.a.example", ""},
      {"own exception below a drop-in's site", "x.a.example allowed", "a.example", "", "x.a.example", ""},
      {"own exception above a drop-in's site", "a.example allowed;b.a.example", "x.a.example only", "a.example",
       "x.a.example", "a.example b.a.example y.x.a.example"},
      {"own exception above a drop-in's site, below a subscription's", "x.a.example allowed", "y.x.a.example",
       "a.example", "y.x.a.example x.a.example a.example", ""},
      {"own exception for a public suffix", "co.uk allowed;c.co.uk", "a.co.uk", "co.uk only;b.co.uk",
       "a.co.uk b.co.uk c.co.uk", "co.uk"},
      {"drop-in's exception", "a.example", "a.example allowed;b.a.example", "c.a.example", "",
       "a.example b.a.example c.a.example"},
      {"subscription's exception, own site", "a.example", "", "a.example allowed;b.a.example", "a.example b.a.example",
       ""},
      {"subscription's exception above an own site", "b.a.example", "", "a.example allowed;c.a.example", "b.a.example",
       "a.example c.a.example"},
      {"subscription's exception, drop-in", "", "a.example only", "a.example allowed;x.a.example", "a.example",
       "x.a.example"},
      {"subscription's exception, its own sites", "", "", "a.example;b.a.example allowed", "a.example c.a.example",
       "b.a.example"},
      {"suspension, subscription", "a.example until=2999-01-01T00:00:00Z", "", "a.example;b.a.example;c.example",
       "c.example", "a.example b.a.example"},
      {"suspension, drop-in", "a.example until=2999-01-01T00:00:00Z", "a.example", "", "a.example", ""},
      {"suspension of a name only", "a.example until=2999-01-01T00:00:00Z only", "", "a.example only;b.a.example",
       "b.a.example", "a.example"},
      {"suspended public suffix", "co.uk until=2999-01-01T00:00:00Z", "", "co.uk only;a.co.uk", "a.co.uk", "co.uk"},
      {"suspension below a subscription's site", "b.a.example until=2999-01-01T00:00:00Z", "", "a.example",
       "b.a.example", ""},
  };
  for (const auto& [description, ownLines, fixed, open, blockedHosts, passingHosts] : kCases) {
    const auto text = [](std::string lines) {
      for (char& each : lines) each = each == ';' ? '\n' : each;
      return lines;
    };
    const HeldNames own = held_names(BlockList::parse(text(ownLines)), Moment());
    const PackedNames ownNames(own.names);
    std::vector<RankedNames> lists{{Rank::Own, &ownNames}};
    std::deque<ReadOnlyList> others{ReadOnlyList::parse(text(fixed), ListKind::DropIn),
                                    ReadOnlyList::parse(text(open), ListKind::Subscription),
                                    ReadOnlyList::parse(text(open) + "\nsuspendable=yes", ListKind::DropIn)};
    for (const ReadOnlyList& list : others) {
      for (const auto& section : list.sections) lists.push_back({list.rank(), &section.names});
    }
    const std::vector<std::string> names = unite(lists, own.suspended);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end())) << description;
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end()) << description;
    std::istringstream blocked(blockedHosts), passing(passingHosts);
    for (std::string host; blocked >> host;) EXPECT_TRUE(is_blocked(names, host)) << description << ": " << host;
    for (std::string host; passing >> host;) EXPECT_FALSE(is_blocked(names, host)) << description << ": " << host;
  }
}

}  // namespace
}  // namespace orvane

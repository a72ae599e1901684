#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <tuple>

#include "companion/list/BlockListLine.h"
#include "companion/list/ListImport.h"
#include "companion/text/Input.h"
#include "support/CollidingNames.h"

namespace orvane {
namespace {

void ignore(size_t, std::string_view, const std::string&) {}

// Imports the text. Returns the imported sites as lines of the list, each followed by ";", then the numbers of the
// rejected lines, each after "!", and then, after "?", how many rules for parts of sites were skipped.
std::string imported(std::string_view text, std::optional<Scope> scope = {}) {
  std::string result, rejected;
  auto reject = [&](size_t line, std::string_view, const std::string& fault) {
    rejected += " !" + std::to_string(line);
    EXPECT_NE(fault.find(": "), std::string::npos) << fault;
  };
  const ImportedSites read = read_import(text, {scope, {}}, reject, nullptr);
  for (const ListedSite& site : read.sites) result += line_of(site) + ";";
  return result + rejected + (read.partialRules > 0 ? " ?" + std::to_string(read.partialRules) : "");
}

TEST(ListImport, ReadsEachFormOfLine) {
  using namespace std::string_view_literals;
  const std::tuple<const char*, std::string_view, std::string_view> kCases[] = {
      {"one name per line", "\xef\xbb\xbfwww.a.example\r\n# no\n\n  b.example\t# yes\r\n", "a.example;b.example;"},
      {"hosts(5)", "0.0.0.0 www.a.example\tb.example#c.example\n::1 \t d.example",
       "www.a.example only;b.example only;d.example only;"},
      {"hosts(5), the machine's own names",
       "127.0.0.1 localhost\n::1 ip6-localhost\n255.255.255.255 broadcasthost\nfe80::1%lo0 localhost\n0.0.0.0 0.0.0.0",
       ""},
      {"hosts(5), other addresses", "192.0.2.7 nas.example\n127.0.1.1 me.example\n0.0.0.0 ok.example b*d",
       "ok.example only; !1 !2 !3"},
      {"filter list",
       "[Adblock Plus 2.0]\n! title\n||a.example^\n||b.example^$doc,important\n||www.c.example|\n##.x\n#@#.x",
       "a.example;b.example;.www.c.example; ?2"},
      {"filter list, exceptions",
       "@@||a.example^\n||a.example^\n||b.example^\n@@||b.example^$document\n@@||c.example^$script\n@@/g/",
       "a.example allowed;b.example; ?3"},
      {"public suffixes", "co.uk\n||github.io^\n@@||github.io^\ncom only\n0.0.0.0 co.uk\nuser.github.io",
       "com only;co.uk only;user.github.io; !1 !2 !3"},
      {"filter list, other rules",
       "||a.example^$third-party\n@@|b.example^\nc.example##.x\n||*.d.example^\n||e.example/f^\n/g/\n||^\nh i\n"
       "&j_\n-k.\nl.example#%#m()\n*.n.example\no.example\n||ads-\n||p\nq.example###r",
       "o.example; !7 !8 !12 ?12"},
      {"comments", "##Title\n#### A ####\na.example ## note\na.example #note", "a.example;"},
      {"the machine's list", "a.example only\nb.example until=2030-01-01T01:00:00+01:00\na.example # twice",
       "a.example;b.example until=2030-01-01T00:00:00Z;"},
      {"invalid names",
       "b\xc3\xbc"
       "cher.example\nb\xfc"
       "cher.example\n\0\n\x01\x02\na b.example\nhttp://c.example/"sv,
       "xn--bcher-kva.example; !2 !3 !4 !5 !6"},
  };
  for (const auto& [description, text, expected] : kCases) EXPECT_EQ(imported(text), expected) << description;
  // What a line means does not depend on the marks of a filter list before it.
  const std::string_view kLines =
      "*.a.example\nb.example/c\nc$.example\nhttp://d.example/\na..b\n##.x\n#@#.x\ne.example##.x\n/f/\n&g_\n"
      "-h/\n||i.example/j\n@@/k/\nl.example^\nlocalhost\n127.0.0.1 localhost\nm.example";
  for (const char* mark : {"#", "!", "[Adblock Plus 2.0]", "||x.example/y"}) {
    size_t rejected = 0;
    const auto count = [&](size_t, std::string_view, const std::string&) { ++rejected; };
    const ImportedSites read = read_import(mark + ("\n" + std::string(kLines)), {}, count, nullptr);
    EXPECT_EQ(std::tuple(read.sites.size(), rejected, read.skipped), std::tuple(1U, 5U, 2U)) << mark;
    EXPECT_EQ(read.partialRules, *mark == '|' ? 10U : 9U) << mark;
  }
  EXPECT_EQ(imported(std::string(size_t{1} << 22, '\xc3')), " !1") << "one long line";
  EXPECT_EQ(imported("0.0.0.0 b.example a.example\nwww.a.example", Scope::Subdomains), "b.example;a.example;");
  EXPECT_EQ(imported("www.a.example\n||b.example^\n@@||c.example^", Scope::ExactName),
            "www.a.example only;b.example only;c.example allowed;");
}

TEST(ListImport, RejectsOtherFileFormats) {
  using namespace std::string_view_literals;
  for (std::string_view text : {"\x1f\x8b\x08"sv, "\xff\xfe.\0"sv, "a\0.\0"sv, "BZh91AY&SY"sv})
    EXPECT_THROW(imported(text), InputError) << text;
  EXPECT_NO_THROW(imported("BZh")) << "a name, and the first bytes of bzip2";
}

TEST(ListImport, StopsAtALimit) {
  size_t rejections = 0;
  const auto count = [&](size_t, std::string_view, const std::string&) { ++rejections; };
  EXPECT_THROW(read_import("0.0.0.0 a.b a.b c.d e.f * *", {{}, {}, 2}, count, nullptr), InputError) << "names";
  EXPECT_EQ(rejections, 0U);
  std::string text = "0.0.0.0";
  for (size_t i = 0; i < kMostImportedLines; ++i) text += " *";
  EXPECT_THROW(read_import(text, {}, count, nullptr), InputError) << "all that a line names";
}

TEST(ListImport, KeepsSuspensions) {
  BlockList list =
      BlockList::parse("a.example until=2030-01-01T00:00:00Z\nb.example only\nc.example\nd.example allowed\n");
  const ImportedSites sites =
      read_import("a.example\nb.example\n0.0.0.0 c.example www.c.example d.example\n", {}, ignore, nullptr);
  ImportCounts counts = put_imported(list, sites, false);
  EXPECT_EQ(list.text(),
            "a.example until=2030-01-01T00:00:00Z\nb.example\nc.example\nd.example allowed\nwww.c.example only\n");
  EXPECT_EQ(counts.unchanged, 3U);
  EXPECT_EQ(counts.changed, 1U);
  EXPECT_EQ(counts.added, 1U);

  list = BlockList::parse("# stays\na.example until=2030-01-01T00:00:00Z\nc.example only\nf.example\ne.example\n");
  counts = put_imported(list, sites, true);
  EXPECT_EQ(list.text(),
            "# stays\na.example until=2030-01-01T00:00:00Z\nc.example only\nb.example\nwww.c.example only\n"
            "d.example only\n");
  EXPECT_EQ(counts.unchanged, 2U);
  EXPECT_EQ(counts.added, 3U);
  EXPECT_EQ(counts.removed, 2U);
}

// The processor time to import and find these names. The least of five times, as a hypervisor's time counts, too.
std::clock_t import_time(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += name + '\n';
  std::clock_t least = std::numeric_limits<std::clock_t>::max();
  for (int run = 0; run < 5; ++run) {
    const std::clock_t start = std::clock();
    BlockList list;
    put_imported(list, read_import(text, {}, ignore, nullptr), false);
    for (const std::string& name : names) EXPECT_NE(list.find(name), nullptr);
    least = std::min(least, std::clock() - start);
  }
  return least;
}

TEST(ListImport, TakesNoLongerForNamesThatCollideWithoutAKey) {
  const std::vector<std::string> colliding = colliding_names(5'000);
  std::vector<std::string> ordinary = colliding;
  for (size_t i = 0; i < ordinary.size(); ++i) ordinary[i].replace(0, 5, std::to_string(10'000 + i));
  EXPECT_LT(import_time(colliding), 5 * import_time(ordinary));
}

// Each row has the text of a list before an import, after the import, and after the import is taken back.
TEST(ListImport, KeepsTheGroupsOfAnExport) {
  const std::string groups =
      "delay = 5m\na.example\n\n[group work]\nschedule = Mon..Fri 09:00-17:00\nenabled = no\na.example only\n"
      "\n[group play]\n";
  const std::tuple<const char*, std::string, std::string, bool, std::string, std::string, size_t> kCases[] = {
      {"into an empty list", "", groups, false, groups, "", 0},
      {"into itself", groups, groups, true, groups, groups, 0},
      {"into groups with sites", "b.example\n[group work]\n# mine\nc.example\n", groups, false,
       "b.example\na.example\n[group work]\n# mine\nc.example\na.example only\n\n[group play]\n",
       "b.example\n[group work]\n# mine\nc.example\n", 2},
      {"in place of their sites", "b.example\n[group work]\n# mine\nc.example\n[group own]\nd.example\n",
       "[group work]\ndelay = 1h\na.example\n", true,
       "b.example\n[group work]\n# mine\na.example\n[group own]\nd.example\n",
       "b.example\n[group work]\n# mine\nc.example\n[group own]\nd.example\n", 1},
      {"not from a group without a name", "",
       "a.example\n[group my kids]\nenabled = no\nb.example\n0.0.0.0 c.example\n[group default]\nd.example\n", false,
       "a.example\nd.example\n", "", 0},
  };
  for (const auto& [what, before, text, replace, after, undone, unchangedGroups] : kCases) {
    BlockList list = BlockList::parse(before);
    const ImportCounts counts = put_imported(list, read_import(text, {}, ignore, nullptr), replace);
    EXPECT_EQ(list.text(), after) << what;
    EXPECT_EQ(counts.unchangedGroups.size(), unchangedGroups) << what;
    take_back(list, read_import_record(counts.record));
    EXPECT_EQ(list.text(), undone) << what;
  }
  BlockList list = BlockList::parse("[group play]\n");
  put_imported(list, read_import(groups, {{}, "play"}, ignore, nullptr), false);
  EXPECT_EQ(list.text(), "[group play]\na.example\n") << "all sites in one group";
}

TEST(ListImport, TakesAnImportBackExceptWhatWasChangedSince) {
  BlockList list = BlockList::parse("kept.example\nold.example only\n");
  const char* text = "kept.example\nold.example\nsuspended.example\nexcepted.example\nremoved.example\n";
  const ImportCounts counts = put_imported(list, read_import(text, {}, ignore, nullptr), false);
  list.put({"suspended.example", Scope::Subdomains, Moment(std::chrono::seconds(1))});
  list.put({"excepted.example", Scope::Exception, {}});
  list.remove("removed.example");
  const UndoCounts undone = take_back(list, read_import_record(counts.record));
  EXPECT_EQ(list.text(), "kept.example\nold.example only\nexcepted.example allowed\n");
  EXPECT_EQ(undone.removed, 1U);
  EXPECT_EQ(undone.restored, 1U);
  EXPECT_EQ(undone.changedSince, 2U);
}

}  // namespace
}  // namespace orvane

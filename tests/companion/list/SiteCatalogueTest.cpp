#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <tuple>

#include "companion/list/BlockListLine.h"
#include "companion/list/SiteCatalogue.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

// The site's name, category and hosts, "!" if the site cannot be used, and the numbers of the bad lines.
std::string read(std::string_view text) {
  CatalogueSite site;
  std::string faults;
  const bool isUsable = read_site_file(text, site, [&](size_t line, std::string_view, const std::string& fault) {
    faults += " " + std::to_string(line);
    EXPECT_NE(fault, "");
  });
  std::string result = site.name + "|" + site.category + "|";
  for (const ListedSite& host : site.hosts) result += line_of(host) + ";";
  return result + (isUsable ? "" : "!") + faults;
}

TEST(SiteCatalogue, ReadsTheGoodLinesOfAFile) {
  const std::tuple<const char*, std::string_view, std::string_view> kCases[] = {
      {"all forms of a line",
       "\xef\xbb\xbfname: A & B\r\ncategory: news\r\n\r\n# source: x\r\nwww.A.example # y\n.m.b.example\nc.example "
       "only",
       "A & B|news|a.example;.m.b.example;c.example only;"},
      {"bad hosts", "name: A\ncategory: news\na.example\nb c\nco.uk\nco.uk only\nx..y\nb.example allowed\nA.example",
       "A|news|a.example;co.uk only; 4 5 7 8 9"},
      {"control characters in the name", "name: A\x1b[2J\nname: A\ncategory: news\na.example", "A|news|a.example; 1"},
      {"a bad category", "name: A\ncategory: The News\na.example\n", "A||a.example;! 2 3"},
      {"no name", "category: news\na.example", "|news|a.example;! 2"},
      {"no host", "name: A\ncategory: news\n# a.example", "A|news|! 3"},
      {"an empty file", "", "||! 0"},
  };
  for (const auto& [description, text, expected] : kCases) EXPECT_EQ(read(text), expected) << description;
}

TEST(SiteCatalogue, FindsSitesOfAllFolders) {
  const TemporaryFolder folder;
  folder.write("one/you-see.site", "name: YouSee\ncategory: video\nyousee.example\nsee.example");
  folder.write("one/chat.site", "name: Chat\ncategory: social\nchat.example");
  folder.write("one/kept.site", "name: Kept\ncategory: social\nkept.example");
  folder.write("two/chat.site", "name: Our Chat\ncategory: social\nchat.example\nown.example");
  folder.write("two/kept.site", "name: No host\ncategory: social");
  folder.write("two/No Name.site", "");
  folder.write("two/.hidden.site", "");
  std::filesystem::create_directory(folder.path() / "two/folder.site");
  const SiteCatalogue catalogue =
      SiteCatalogue::read({folder.path() / "one", folder.path() / "none", folder.path() / "two"});
  EXPECT_EQ(catalogue.faults().size(), 3U) << "kept.site, No Name.site, folder.site";
  EXPECT_EQ(catalogue.categories(), (std::vector<std::string>{"social", "video"}));

  using Sites = std::vector<const CatalogueSite*>;
  const auto names = [](const Sites& sites) {
    std::string text;
    for (const CatalogueSite* site : sites) text += site->name + ";";
    return text;
  };
  const auto find = [&](std::string_view word) {
    const CatalogueSite* site = catalogue.find(word);
    return site == nullptr ? Sites() : Sites{site};
  };
  const auto category = [&](std::string_view word) { return catalogue.ofCategory(word); };
  const auto search = [&](std::string_view word) { return catalogue.search(word); };
  const auto similar = [&](std::string_view word) { return catalogue.similar(word); };
  const std::tuple<const char*, std::function<Sites(std::string_view)>, const char*, const char*> kCases[] = {
      {"an id, and an overridden site", find, "chat", "Our Chat;"},
      {"an id with a broken override", find, "kept", "Kept;"},
      {"a name in another spelling", find, "you SEE!", "YouSee;"},
      {"an unknown name", find, "yousees", ""},
      {"no letters", find, "-", ""},
      {"a category", category, "Social", "Our Chat;Kept;"},
      {"an unknown category", category, "soc", ""},
      {"a part of a name", search, "see", "YouSee;"},
      {"a part of a host", search, "own.", "Our Chat;"},
      {"a whole category", search, "video", "YouSee;"},
      {"a mistyped name", similar, "yuosee", "YouSee;"},
      {"a host", similar, "https://www.see.example/page", "YouSee;"},
      {"a word that is like no name", similar, "zzz", ""},
  };
  for (const auto& [description, lookUp, word, expected] : kCases)
    EXPECT_EQ(names(lookUp(word)), expected) << description;
}

}  // namespace
}  // namespace orvane

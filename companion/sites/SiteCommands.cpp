#include "companion/sites/SiteCommands.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "companion/list/BlockListLine.h"
#include "companion/list/Places.h"
#include "companion/text/EditDistance.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

// The folders with the sites of the package, of the administrator and of the user. A later one overrides earlier ones.
std::vector<std::string> site_folders(const CommonOptions& options) {
  std::vector<std::string> folders{options.cataloguePath, places().sites};
  const char* configuration = std::getenv("XDG_CONFIG_HOME");
  const char* home = std::getenv("HOME");
  // The XDG Base Directory Specification says to ignore a relative path.
  if (configuration != nullptr && *configuration == '/') {
    folders.push_back(std::string(configuration) + "/orvane-se/sites");
  } else if (home != nullptr && *home == '/') {
    folders.push_back(std::string(home) + "/.config/orvane-se/sites");
  }
  return folders;
}

SiteCatalogue read_and_report(const CommonOptions& options) {
  SiteCatalogue catalogue = SiteCatalogue::read(site_folders(options));
  for (const std::string& fault : catalogue.faults()) print_error(fault);
  if (catalogue.sites().empty())
    throw FileError("no site is known: " + in_quotes(options.cataloguePath) +
                    " has none: name the folder of a catalogue with --catalogue");
  return catalogue;
}

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
  return text;
}

const CatalogueSite& site_named(const SiteCatalogue& catalogue, const std::string& name) {
  if (const CatalogueSite* site = catalogue.find(name)) return *site;
  std::vector<std::string> ids;
  for (const CatalogueSite* site : catalogue.similar(name)) ids.push_back(site->id);
  throw InputError("unknown site: " + in_quotes(name) + ": " +
                   (ids.empty() ? "see orvanectl sites list, or block its hosts by their names"
                                : "did you mean " + joined(ids, " or ") + "?"));
}

std::vector<const CatalogueSite*> sites_of_category(const SiteCatalogue& catalogue, const std::string& name) {
  std::vector<const CatalogueSite*> sites = catalogue.ofCategory(name);
  if (!sites.empty()) return sites;
  for (const std::string& category : catalogue.categories()) {
    if (edit_distance(name, category) <= std::min(name.size() / 3, size_t{2}))
      throw InputError("unknown category: " + in_quotes(name) + ": did you mean " + category + "?");
  }
  throw InputError("unknown category: " + in_quotes(name) + ": give one of " + joined(catalogue.categories(), ", "));
}

nlohmann::json title_json(const CatalogueSite& site) {
  return {{"id", site.id}, {"name", site.name}, {"category", site.category}};
}

int print_sites(const CommonOptions& options, const std::vector<const CatalogueSite*>& sites) {
  if (options.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const CatalogueSite* site : sites) {
      array.push_back(title_json(*site));
      array.back()["hosts"] = site->hosts.size();
    }
    print_json(array);
    return kDone;
  }
  size_t widestId = 0, widestCategory = 0;
  for (const CatalogueSite* site : sites) {
    widestId = std::max(widestId, site->id.size());
    widestCategory = std::max(widestCategory, site->category.size());
  }
  for (const CatalogueSite* site : sites)
    std::printf("%-*s  %-*s  %s, %s\n", static_cast<int>(widestId), site->id.c_str(), static_cast<int>(widestCategory),
                site->category.c_str(), site->name.c_str(), counted(site->hosts.size(), "host", "hosts").c_str());
  return kDone;
}

int list(const CommonOptions& options, const SiteOptions& given) {
  const SiteCatalogue catalogue = read_and_report(options);
  std::vector<const CatalogueSite*> sites;
  for (const std::string& category : given.categories) {
    for (const CatalogueSite* site : sites_of_category(catalogue, category)) sites.push_back(site);
  }
  if (given.categories.empty()) {
    for (const CatalogueSite& site : catalogue.sites()) sites.push_back(&site);
  }
  print_sites(options, sites);
  if (isatty(STDOUT_FILENO) == 1 && !options.json && given.categories.empty())
    std::puts(coloured(counted(sites.size(), "site", "sites") + "; categories: " + joined(catalogue.categories(), ", "),
                       Colour::Faint)
                  .c_str());
  return kDone;
}

int show(const CommonOptions& options, const SiteOptions& given) {
  nlohmann::json sites = nlohmann::json::array();
  for (const CatalogueSite& site : chosen_sites(options, given)) {
    sites.push_back(title_json(site));
    sites.back()["file"] = site.file;
    sites.back()["hosts"] = nlohmann::json::array();
    if (!options.json)
      std::printf("%s: %s, %s, in %s\n", site.name.c_str(), site.category.c_str(),
                  counted(site.hosts.size(), "host", "hosts").c_str(), in_quotes(site.file).c_str());
    for (const ListedSite& host : site.hosts) {
      sites.back()["hosts"].push_back(
          {{"host", host.host}, {"scope", host.scope == Scope::ExactName ? "exact" : "subdomains"}});
      if (!options.json) std::printf("  %s\n", line_of(host).c_str());
    }
  }
  if (options.json) print_json(sites);
  return kDone;
}

int search(const CommonOptions& options, const SiteOptions& given) {
  const SiteCatalogue catalogue = read_and_report(options);
  const std::string& word = given.names.front();
  std::vector<const CatalogueSite*> sites = catalogue.search(word);
  if (sites.empty()) sites = catalogue.similar(word);
  if (!sites.empty()) return print_sites(options, sites);
  throw InputError("no site matches: " + in_quotes(word) + ": see orvanectl sites list");
}

}  // namespace

void SiteOptions::declare(CLI::App& command) {
  // Each option takes one value, because a word after the value is a host.
  command.add_option("--site", names, "All hosts of a site of the catalogue: see orvanectl sites list")
      ->allow_extra_args(false)
      ->type_name("SITE");
  command.add_option("--category", categories, "All hosts of all sites of a category, such as social or news")
      ->allow_extra_args(false)
      ->type_name("CATEGORY");
}

std::vector<CatalogueSite> chosen_sites(const CommonOptions& options, const SiteOptions& given) {
  const SiteCatalogue catalogue = read_and_report(options);
  std::vector<CatalogueSite> chosen;
  std::set<std::string_view> seen;
  const auto choose = [&](const CatalogueSite& site) {
    if (seen.insert(site.id).second) chosen.push_back(site);
  };
  for (const std::string& name : given.names) choose(site_named(catalogue, name));
  for (const std::string& category : given.categories) {
    for (const CatalogueSite* site : sites_of_category(catalogue, category)) choose(*site);
  }
  return chosen;
}

std::optional<std::string> catalogued_id(const CommonOptions& options, const std::string& word) {
  if (word.find('.') != std::string::npos) return std::nullopt;
  const SiteCatalogue catalogue = SiteCatalogue::read(site_folders(options));
  const CatalogueSite* site = catalogue.find(word);
  return site == nullptr ? std::nullopt : std::optional(site->id);
}

void declare_site_commands(CommandSet& commands) {
  auto given = std::make_shared<SiteOptions>();
  CLI::App* sites = commands.app.add_subcommand("sites", "The catalogue: sites that people know by name")
                        ->fallthrough()
                        ->group(kListGroup)
                        ->require_subcommand(1);
  const auto declare = [&](const char* name, const char* description,
                           int (*command)(const CommonOptions&, const SiteOptions&)) {
    return commands.declare(*sites, "Commands", name, description,
                            [&options = commands.options, given, command] { return command(options, *given); });
  };
  declare("list", "Print all sites", list)
      ->add_option("--category", given->categories, "Only the sites of a category")
      ->type_name("CATEGORY");
  declare("show", "Print the hosts of sites", show)
      ->add_option("SITE", given->names, "The id or name of a site")
      ->required()
      ->type_name("");
  declare("search", "Print the sites whose names or hosts contain a word, and the sites of a category", search)
      ->add_option("WORD", given->names, "A part of a name or host, as in \"tube\", or a category")
      ->expected(1)
      ->required()
      ->type_name("");
}

}  // namespace orvane

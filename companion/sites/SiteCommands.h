#pragma once

#include <optional>
#include <string>
#include <vector>

#include "companion/commandline/CommandSet.h"
#include "companion/list/SiteCatalogue.h"

namespace orvane {

// The options --site and --category, which a command line may have several times.
struct SiteOptions {
  std::vector<std::string> names;
  std::vector<std::string> categories;

  void declare(CLI::App& command);
  bool isGiven() const { return !names.empty() || !categories.empty(); }
};

// The sites of the catalogue that the options name, each once. Prints the faults of the catalogue's files. Throws
// InputError, with suggestions, if the catalogue lacks one of the names.
std::vector<CatalogueSite> chosen_sites(const CommonOptions& options, const SiteOptions& given);

// If a word without a dot is the id or the name of a site of the catalogue: its id. Says nothing about faults of the
// catalogue.
std::optional<std::string> catalogued_id(const CommonOptions& options, const std::string& word);

// Declares the command "sites" with its commands list, show and search.
void declare_site_commands(CommandSet& commands);

}  // namespace orvane

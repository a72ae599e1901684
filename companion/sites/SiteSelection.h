#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/list/BlockList.h"
#include "companion/sites/SiteCommands.h"

namespace orvane {

// How a command line names the sites of a command.
struct SiteArguments {
  std::vector<std::string> hosts;
  bool all = false;
  std::string from;  // a file of hosts
  SiteOptions catalogued;
};

// Returns the sites of the group that a command is about, each once. Adds to `notes` what the command is to print about
// the sites that are left out, after it has edited the list.
using FindSites =
    std::function<std::vector<ListedSite>(const BlockList& list, GroupIndex group, std::vector<std::string>& notes)>;

// What a command line selects.
struct Selection {
  FindSites find;
  std::vector<CatalogueSite> chosen{};       // the sites of the catalogue that --site and --category name
  const char* none = "none of these sites";  // for the message "the group NAME has ...", if find() finds nothing

  // The first chosen site that has the host; null if none has.
  const CatalogueSite* originOf(const std::string& host) const;
};

// Selects sites on the list: those with the given hosts, those with the hosts of a file or of sites of the catalogue,
// or all. `command`: its name. For "disallow", selects only exceptions, otherwise only sites that are not exceptions.
// Throws InputError, after a report of each fault, if the command line is invalid; Selection::find() throws it if a
// given host is not on the list, or if the file has no hosts.
Selection selected_sites(const CommonOptions& options, const SiteArguments& arguments, std::string_view command,
                         Moment now);

// Selects the sites that the command line names, with the given scope, and the hosts of the chosen sites of the
// catalogue, with their own scopes. They need not be on the list. Throws InputError, after a report of each fault.
Selection new_sites(const CommonOptions& options, const SiteArguments& arguments, Scope scope);

// " --group work", for a command that is to find a site of this group. Empty for the default group.
std::string group_option(const BlockList& list, const ListedSite& site);

}  // namespace orvane

#include "companion/sites/SiteSelection.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "companion/commands/GroupState.h"
#include "companion/keeper/ListsBeside.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListImport.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

std::vector<ListedSite> hosts_of(const std::vector<CatalogueSite>& chosen) {
  std::vector<ListedSite> hosts;
  for (const CatalogueSite& site : chosen) hosts.insert(hosts.end(), site.hosts.begin(), site.hosts.end());
  return hosts;
}

// If the word cannot be meant as a host with the site's scope: what is wrong and what to do. Otherwise empty.
std::string site_fault(const CommonOptions& options, const std::string& word, const ListedSite& site) {
  if (site.scope != Scope::Subdomains) return scope_fault(site);
  if (const auto id = catalogued_id(options, word)) return "it has no dot: did you mean --site " + *id + "?";
  if (is_local_name(site.host))
    return "it is a name of this machine itself: name a site; or, for this exact name, use --exact";
  return scope_fault(site);
}

// Returns the sites that the given words name, with their hosts in the form that browsers send. Reports each word that
// names no site, and then throws InputError.
std::vector<ListedSite> checked_sites(const CommonOptions& options, const std::vector<std::string>& given,
                                      Scope scope) {
  std::vector<ListedSite> sites;
  ListedSite site;
  std::string fault;
  for (const std::string& host : given) {
    note_ignored_port(host);
    if (!read_site(host_in(host), scope, site, fault)) {
      print_error("not a host name: " + in_quotes(host) + ": " + fault);
    } else if (fault = site_fault(options, host, site); !fault.empty()) {
      print_error("not a site: " + in_quotes(host) + ": " + fault);
    } else {
      sites.push_back(site);
    }
  }
  const size_t refused = given.size() - sites.size();
  if (refused > 0)
    throw InputError("nothing was changed: " + std::to_string(refused) + " of " +
                     counted(given.size(), "name", "names") + " refused: correct the names above");
  return sites;
}

// For a host without a blocking line of its own: which line decides about the host, and what to do.
std::string not_blocked_text(const BlockList& list, ListsBeside& beside, const std::string& host, Moment now) {
  const Decision decision = decide(list, host, now);
  const auto line = beside.blockingLine(host);
  if (line && line->rank == Rank::Fixed)
    return "it is covered by " + line_text(*line) + ", which this command does not change";
  if (decision.exception != nullptr)
    return "it is allowed by the exception " + in_quotes(line_of(*decision.exception)) +
           ": to end the exception: orvanectl disallow " + decision.exception->host;
  if (line && decision.blocking == nullptr)
    return "it is covered by " + line_text(*line) + ": to allow this host: orvanectl allow " + host;
  const ListedSite* site = decision.blocking != nullptr ? decision.blocking : decision.suspended;
  if (site == nullptr) site = decision.inactive;
  if (site == nullptr) return "see orvanectl list";
  if (site->group != kDefaultGroup)
    return "it is covered by the line " + in_quotes(line_of(*site)) + " of the group " + list.groupOf(*site).name +
           ": give " + site->host + " --group " + list.groupOf(*site).name;
  return "it is covered by the line " + in_quotes(line_of(*site)) + ": to allow this host: orvanectl allow " + host +
         "; to change the whole line, give " + site->host;
}

// Returns the sites on the list that have the given hosts: with `exceptions`, only exceptions, otherwise only sites
// that are not exceptions. Reports each host that has no such site, and then throws InputError.
std::vector<ListedSite> listed_sites(const BlockList& list, GroupIndex group, const std::vector<ListedSite>& given,
                                     bool exceptions, Moment now, const CommonOptions& options) {
  ListsBeside beside(keeper_of_list(options));
  std::vector<ListedSite> sites;
  std::set<const ListedSite*> seen;
  size_t unknown = 0;
  for (const ListedSite& each : given) {
    const std::string& host = each.host;
    const ListedSite* site = list.find(host, group);
    if (site != nullptr && (site->scope == Scope::Exception) == exceptions) {
      if (seen.insert(site).second) sites.push_back(*site);
    } else {
      ++unknown;
      const auto id = exceptions ? std::nullopt : catalogued_id(options, host);
      print_error(exceptions
                      ? "no exception: " + in_quotes(host) + ": see orvanectl list"
                      : "not on the list: " + in_quotes(host) + ": " +
                            (id ? "did you mean --site " + *id + "?" : not_blocked_text(list, beside, host, now)));
    }
  }
  if (unknown > 0)
    throw InputError("nothing was changed: " + std::to_string(unknown) + " of " +
                     counted(given.size(), "host", "hosts") + " not on the list: leave out the hosts above");
  return sites;
}

// Finds the sites with the hosts that the command line gives.
FindSites given_sites(const CommonOptions& options, const SiteArguments& arguments, Moment now, bool exceptions) {
  return [=, &options, hosts = checked_sites(options, arguments.hosts, Scope::ExactName)](const BlockList& list,
                                                                                          GroupIndex group) {
    return listed_sites(list, group, hosts, exceptions, now, options);
  };
}

// Reads the hosts of a file in one of the forms that import reads.
std::vector<ListedSite> sites_of_file(const std::string& file) {
  const std::string source = file == "-" ? "standard input" : file;
  const auto rejected = [&](size_t line, std::string_view text, const std::string& fault) {
    print_error("skipped: " + source + ":" + std::to_string(line) + ": " + in_quotes(text) + ": " + fault);
  };
  ImportedSites read = read_import(read_input(file), {{}, std::string(kDefaultGroupName)}, rejected, nullptr);
  if (read.sites.empty())
    throw InputError("nothing was changed: " + source + ": it has no line with a host name: give a list of names");
  return {std::make_move_iterator(read.sites.begin()), std::make_move_iterator(read.sites.end())};
}

// Finds the sites that are on the list: all sites, or those with the given hosts. `source` says where the given hosts
// come from; those that are not on the list are only counted. With `exceptions`, selects only exceptions, otherwise
// only sites that are not exceptions.
FindSites all_sites(bool exceptions) {
  return [=](const BlockList& list, GroupIndex group) {
    std::vector<ListedSite> sites = list.sites();
    std::erase_if(sites, [&](const ListedSite& site) {
      return site.group != group || (site.scope == Scope::Exception) != exceptions;
    });
    return sites;
  };
}
FindSites sites_on_list(const std::vector<ListedSite>& given, const std::string& source, bool exceptions) {
  return [=](const BlockList& list, GroupIndex group) {
    std::vector<ListedSite> sites;
    for (const ListedSite& each : given) {
      const ListedSite* site = list.find(each.host, group);
      if (site != nullptr && (site->scope == Scope::Exception) == exceptions) sites.push_back(*site);
    }
    if (sites.size() < given.size())
      print_error("skipped: " + counted(given.size() - sites.size(), "name", "names") + " of " + source +
                  " that the group " + list.groups()[group].name + " does not have");
    return sites;
  };
}

}  // namespace

const CatalogueSite* Selection::originOf(const std::string& host) const {
  const auto isHost = [&](const ListedSite& each) { return each.host == host; };
  const auto found = std::find_if(chosen.begin(), chosen.end(), [&](const CatalogueSite& site) {
    return std::any_of(site.hosts.begin(), site.hosts.end(), isHost);
  });
  return found == chosen.end() ? nullptr : &*found;
}

Selection selected_sites(const CommonOptions& options, const SiteArguments& arguments, const char* command, Moment now,
                         bool exceptions) {
  const bool isCatalogued = arguments.catalogued.isGiven();
  const int given = (arguments.hosts.empty() ? 0 : 1) + (arguments.all ? 1 : 0) + (arguments.from.empty() ? 0 : 1) +
                    (isCatalogued ? 1 : 0);
  if (given != 1)
    throw InputError(std::string("bad command line: ") + command + ": give " +
                     (given > 1 ? "only one of these: " : "") + "hosts of sites on the list, or --all, or " +
                     (exceptions ? "--from FILE" : "--from FILE, or --site SITE, or --category CATEGORY"));
  if (arguments.all) return {all_sites(exceptions), {}, exceptions ? "no exceptions" : "no sites"};
  if (!arguments.hosts.empty()) return {given_sites(options, arguments, now, exceptions)};
  if (!isCatalogued) return {sites_on_list(sites_of_file(arguments.from), in_quotes(arguments.from), exceptions)};
  std::vector<CatalogueSite> chosen = chosen_sites(options, arguments.catalogued);
  const std::string source = chosen.size() == 1 ? chosen.front().name : counted(chosen.size(), "site", "sites");
  FindSites find = sites_on_list(hosts_of(chosen), source, exceptions);
  return {std::move(find), std::move(chosen)};
}

Selection new_sites(const CommonOptions& options, const SiteArguments& arguments, Scope scope) {
  std::vector<ListedSite> sites = checked_sites(options, arguments.hosts, scope);
  std::vector<CatalogueSite> chosen;
  if (arguments.catalogued.isGiven()) chosen = chosen_sites(options, arguments.catalogued);
  for (ListedSite& host : hosts_of(chosen)) sites.push_back(std::move(host));
  return {[sites = std::move(sites)](const BlockList&, GroupIndex group) {
            std::vector<ListedSite> unique;
            std::set<std::string_view> seen;
            for (const ListedSite& site : sites) {
              if (!seen.insert(site.host).second) continue;
              unique.push_back(site);
              unique.back().group = group;
            }
            return unique;
          },
          std::move(chosen)};
}

}  // namespace orvane

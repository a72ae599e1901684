#include "companion/sites/SiteSelection.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "companion/commandline/GroupState.h"
#include "companion/keeper/ListsBeside.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListImport.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

// Names of commands, as in the calls of selected_sites().
constexpr std::string_view kDisallow = "disallow", kResume = "resume";

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

bool is_listed(const ListedSite* site, bool exceptions) {
  return site != nullptr && (site->scope == Scope::Exception) == exceptions;
}

// The site of the group that a host names: the site with this host or, as for `block`, the site that covers it under
// the name without "www.". `word`: the host as given; after a leading dot, the name keeps its "www.". Exceptions keep
// it, too.
const ListedSite* named_site(const BlockList& list, GroupIndex group, std::string_view word, const std::string& host,
                             bool exceptions) {
  const ListedSite* site = list.find(host, group);
  if (site != nullptr || exceptions || word.starts_with('.')) return site;
  site = list.find(site_of(host), group);
  return site != nullptr && site->scope == Scope::Subdomains ? site : nullptr;
}

std::string exception_text(const BlockList& list, const ListedSite& exception) {
  return "it is allowed by the exception " + in_quotes(line_of(exception)) +
         ": to end the exception: orvanectl disallow " + exception.host + group_option(list, exception);
}

// For a host that is no exception in the group: what the list says about the host, and what to do.
std::string no_exception_text(const BlockList& list, GroupIndex group, const std::string& host, Moment now) {
  if (const ListedSite* site = list.find(host, group))
    return "it is a blocked site: to remove it: orvanectl unblock " + host + group_option(list, *site);
  const ListedSite* exception = decide(list, host, now).exception;
  list.forEachSiteOf(host, [&](const ListedSite& site) {
    if (site.scope == Scope::Exception) exception = &site;
  });
  return exception == nullptr ? "see orvanectl list" : exception_text(list, *exception);
}

// For a host without a blocking line of its own in the group: which line decides about the host, and what to do.
std::string not_blocked_text(const BlockList& list, GroupIndex group, ListsBeside& beside, const std::string& host,
                             std::string_view command, Moment now) {
  const Decision decision = decide(list, host, now);
  const auto line = beside.blockingLine(host);
  if (line && line->rank == Rank::Fixed)
    return "it is covered by " + line_text(*line) + ", which this command does not change";
  if (decision.exception != nullptr) return exception_text(list, *decision.exception);
  if (line && decision.blocking == nullptr)
    return "it is covered by " + line_text(*line) + ": to allow this host: orvanectl allow " + host;
  const ListedSite* site = decision.blocking != nullptr ? decision.blocking : decision.suspended;
  if (site == nullptr) site = decision.inactive;
  if (site == nullptr) return "see orvanectl list";
  const std::string& name = list.groupOf(*site).name;
  if (site->group != group)
    return "it is covered by the line " + in_quotes(line_of(*site)) + " of the group " + name + ": give " + site->host +
           " --group " + name;
  return "it is covered by the line " + in_quotes(line_of(*site)) +
         (command == kResume
              ? ": to block it again: orvanectl resume " + site->host + group_option(list, *site)
              : ": to allow this host: orvanectl allow " + host + "; to change the whole line, give " + site->host);
}

// Returns the sites on the list that have the given hosts, which the words name: with `exceptions`, only exceptions,
// otherwise only sites that are not exceptions. Reports each host that has no such site, and then throws InputError.
std::vector<ListedSite> listed_sites(const BlockList& list, GroupIndex group, const std::vector<std::string>& words,
                                     const std::vector<ListedSite>& given, std::string_view command, Moment now,
                                     const CommonOptions& options) {
  const bool exceptions = command == kDisallow;
  const auto keeper = keeper_of_list(options);
  ListsBeside beside(keeper);
  std::vector<ListedSite> sites;
  std::set<const ListedSite*> seen;
  size_t unknown = 0;
  for (size_t i = 0; i < given.size(); ++i) {
    const std::string& host = given[i].host;
    const ListedSite* site = named_site(list, group, words[i], host, exceptions);
    if (is_listed(site, exceptions)) {
      if (seen.insert(site).second) sites.push_back(*site);
    } else {
      ++unknown;
      const std::string shown = in_quotes(shown_hostname(host)) + ": ";
      if (exceptions) {
        print_error("no exception: " + shown + no_exception_text(list, group, host, now));
        continue;
      }
      const auto id = catalogued_id(options, host);
      const std::string& groupName = list.groups()[group].name;
      auto earlier = earlier_change_held_back(keeper, groupName, host);
      if (!earlier) earlier = earlier_change_held_back(keeper, groupName, site_of(host));
      print_error("not on the list: " + shown +
                  (id        ? "did you mean --site " + *id + "?"
                   : earlier ? removal_text(*earlier, now)
                             : not_blocked_text(list, group, beside, host, command, now)));
    }
  }
  if (unknown > 0)
    throw InputError("nothing was changed: " + std::to_string(unknown) + " of " +
                     counted(given.size(), "host", "hosts") + (exceptions ? " not an exception" : " not on the list") +
                     ": correct or leave out the hosts above");
  return sites;
}

// Finds the sites with the hosts that the command line gives.
FindSites given_sites(const CommonOptions& options, const SiteArguments& arguments, std::string_view command,
                      Moment now) {
  return [=, &options, words = arguments.hosts, hosts = checked_sites(options, arguments.hosts, Scope::ExactName)](
             const BlockList& list, GroupIndex group, std::vector<std::string>&) {
    return listed_sites(list, group, words, hosts, command, now, options);
  };
}

// Finds the sites that are on the list: all sites, or those with the given hosts. `source` says where the given hosts
// come from; those that are not on the list are only counted. With `exceptions`, selects only exceptions, otherwise
// only sites that are not exceptions.
FindSites all_sites(bool exceptions) {
  return [=](const BlockList& list, GroupIndex group, std::vector<std::string>&) {
    std::vector<ListedSite> sites = list.sites();
    std::erase_if(sites, [&](const ListedSite& site) {
      return site.group != group || (site.scope == Scope::Exception) != exceptions;
    });
    return sites;
  };
}
FindSites sites_on_list(const std::vector<ListedSite>& given, const std::string& source, bool exceptions) {
  return [=](const BlockList& list, GroupIndex group, std::vector<std::string>& notes) {
    std::vector<ListedSite> sites;
    std::map<GroupIndex, size_t> elsewhere;  // how many of the others each other group has
    for (const ListedSite& each : given) {
      const ListedSite* site = list.find(each.host, group);
      if (is_listed(site, exceptions)) {
        sites.push_back(*site);
        continue;
      }
      list.forEachSiteOf(each.host, [&](const ListedSite& other) {
        if (other.group != group && is_listed(&other, exceptions)) ++elsewhere[other.group];
      });
    }
    if (sites.size() == given.size()) return sites;
    std::string text = "skipped: " + counted(given.size() - sites.size(), "name", "names") + " of " + source +
                       " that the group " + list.groups()[group].name + " does not have";
    for (const auto& [other, count] : elsewhere) {
      const std::string& name = list.groups()[other].name;
      text.append(": the group ").append(name).append(" has ").append(std::to_string(count));
      text.append(" of them: give --group ").append(name);
    }
    notes.push_back(std::move(text));
    return sites;
  };
}

// Finds the sites that a file names in one of the forms that import reads. Import changes some hosts: it removes
// "www.", for example. If the unchanged host of a line is on the list, the line names this host; otherwise it names the
// changed one.
FindSites sites_of_file(const std::string& file, bool exceptions) {
  const std::string source = file == "-" ? "standard input" : in_quotes(file);
  return [=, text = read_input(file)](const BlockList& list, GroupIndex group, std::vector<std::string>& notes) {
    std::vector<RejectedLine> lines;
    const auto rejected = [&](size_t line, std::string_view words, const std::string& fault) {
      if (lines.size() < kMostPrinted) lines.push_back({line, std::string(words), fault});
    };
    ImportOptions options{{}, std::string(kDefaultGroupName)};
    options.isOnList = [&](const std::string& host) { return is_listed(list.find(host, group), exceptions); };
    const ImportedSites read = read_import(text, options, rejected, nullptr);
    notes = rejection_texts("skipped", source, lines, read.rejected);
    if (read.sites.empty()) {
      for (const std::string& note : notes) print_error(note);
      throw InputError("nothing was changed: " + source + ": it has no line with a host name: give a list of names");
    }
    return sites_on_list({read.sites.begin(), read.sites.end()}, source, exceptions)(list, group, notes);
  };
}

}  // namespace

std::string group_option(const BlockList& list, const ListedSite& site) {
  return site.group == kDefaultGroup ? "" : " --group " + list.groupOf(site).name;
}

const CatalogueSite* Selection::originOf(const std::string& host) const {
  const auto isHost = [&](const ListedSite& each) { return each.host == host; };
  const auto found = std::find_if(chosen.begin(), chosen.end(), [&](const CatalogueSite& site) {
    return std::any_of(site.hosts.begin(), site.hosts.end(), isHost);
  });
  return found == chosen.end() ? nullptr : &*found;
}

Selection selected_sites(const CommonOptions& options, const SiteArguments& arguments, std::string_view command,
                         Moment now) {
  const bool exceptions = command == kDisallow;
  const bool isCatalogued = arguments.catalogued.isGiven();
  const int given = (arguments.hosts.empty() ? 0 : 1) + (arguments.all ? 1 : 0) + (arguments.from.empty() ? 0 : 1) +
                    (isCatalogued ? 1 : 0);
  if (given != 1)
    throw InputError("bad command line: " + std::string(command) + ": give " +
                     (given > 1 ? "only one of these: " : "") + "hosts of sites on the list, or --all, or " +
                     (exceptions ? "--from FILE" : "--from FILE, or --site SITE, or --category CATEGORY"));
  if (arguments.all) return {all_sites(exceptions), {}, exceptions ? "no exceptions" : "no sites"};
  if (!arguments.hosts.empty()) return {given_sites(options, arguments, command, now)};
  if (!isCatalogued) {
    Selection selection{sites_of_file(arguments.from, exceptions)};
    if (exceptions) selection.none = "none of these exceptions";
    return selection;
  }
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
  return {[sites = std::move(sites)](const BlockList&, GroupIndex group, std::vector<std::string>&) {
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

#include "companion/commands/ListCommands.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "companion/commands/BlockListOutput.h"
#include "companion/commands/EndTime.h"
#include "companion/commands/GroupState.h"
#include "companion/commands/ImportCommand.h"
#include "companion/commands/SiteCommands.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/doctor/DoctorBrowsers.h"
#include "companion/doctor/DoctorFacts.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListImport.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

struct Arguments {
  std::vector<std::string> hosts;
  bool exactNames = false;
  bool all = false;
  std::string from;
  SiteOptions catalogued;
  std::string group{kDefaultGroupName};
  std::optional<std::string> shownGroup;  // by list and export; nothing for all groups
  bool hostsOnly = false;
  EndTime end;
};

// What a command did to one site.
struct Change {
  ListedSite site;
  bool changed = false;
  std::string outcome;         // in words; may be empty
  bool isMeantToBlock = true;  // false if the command lets the host pass
  // The line that has the opposite effect on the host, and its group; empty if there is none.
  std::string otherLine{}, otherGroup{};
  const CatalogueSite* origin = nullptr;  // the chosen site of the catalogue that has this host
};

// The two steps of a command: FindSites returns the sites of the group that the command is about, each once; ChangeSite
// changes one of them.
using FindSites = std::function<std::vector<ListedSite>(const BlockList& list, GroupIndex group)>;
using ChangeSite = std::function<Change(BlockList& list, ListedSite site)>;

// What the command line selects.
struct Selection {
  FindSites find;
  std::vector<CatalogueSite> chosen{};  // the sites of the catalogue that --site and --category name

  // The first chosen site that has the host; null if none has.
  const CatalogueSite* originOf(const std::string& host) const {
    const auto isHost = [&](const ListedSite& each) { return each.host == host; };
    const auto found = std::find_if(chosen.begin(), chosen.end(), [&](const CatalogueSite& site) {
      return std::any_of(site.hosts.begin(), site.hosts.end(), isHost);
    });
    return found == chosen.end() ? nullptr : &*found;
  }
};

std::vector<ListedSite> hosts_of(const std::vector<CatalogueSite>& chosen) {
  std::vector<ListedSite> hosts;
  for (const CatalogueSite& site : chosen) hosts.insert(hosts.end(), site.hosts.begin(), site.hosts.end());
  return hosts;
}

// Returns the sites that the given words name, with their hosts in the form that browsers send. Reports each word that
// names no site, and then throws InputError.
std::vector<ListedSite> checked_sites(const std::vector<std::string>& given, Scope scope) {
  std::vector<ListedSite> sites;
  ListedSite site;
  std::string fault;
  for (const std::string& host : given) {
    if (!read_site(host_in(host), scope, site, fault)) {
      print_error("not a host name: " + in_quotes(host) + ": " + fault);
    } else if (fault = scope_fault(site); !fault.empty()) {
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
std::string not_blocked_text(const BlockList& list, const std::string& host, Moment now) {
  const Decision decision = decide(list, host, now);
  if (decision.exception != nullptr)
    return "it is allowed by the exception " + in_quotes(line_of(*decision.exception)) +
           ": to end the exception: orvanectl disallow " + decision.exception->host;
  const ListedSite* site = decision.blocking != nullptr ? decision.blocking : decision.suspended;
  if (site == nullptr) site = decision.inactive;
  if (site == nullptr) return "see orvanectl list";
  if (site->group != kDefaultGroup)
    return "it is covered by the line " + in_quotes(line_of(*site)) + " of the group " + list.groupOf(*site).name +
           ": give " + site->host + " --group " + list.groupOf(*site).name;
  return "it is covered by the line " + in_quotes(line_of(*site)) + ": to except this host: orvanectl allow " + host +
         "; to change the whole line, give " + site->host;
}

// Returns the sites on the list that have the given hosts: with `exceptions`, only exceptions, otherwise only sites
// that are not exceptions. Reports each host that has no such site, and then throws InputError.
std::vector<ListedSite> listed_sites(const BlockList& list, GroupIndex group, const std::vector<ListedSite>& given,
                                     bool exceptions, Moment now) {
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
      print_error(exceptions ? "no exception: " + in_quotes(host) + ": see orvanectl list"
                             : "not on the list: " + in_quotes(host) + ": " + not_blocked_text(list, host, now));
    }
  }
  if (unknown > 0)
    throw InputError("nothing was changed: " + std::to_string(unknown) + " of " +
                     counted(given.size(), "host", "hosts") + " not on the list: leave out the hosts above");
  return sites;
}

// Finds the sites with the hosts that the command line gives.
FindSites given_sites(const Arguments& arguments, Moment now, bool exceptions) {
  return [=, hosts = checked_sites(arguments.hosts, Scope::ExactName)](const BlockList& list, GroupIndex group) {
    return listed_sites(list, group, hosts, exceptions, now);
  };
}

// Reads the hosts of a file in one of the forms that import reads.
std::vector<ListedSite> sites_of_file(const std::string& file) {
  const std::string source = file == "-" ? "standard input" : file;
  const auto rejected = [&](size_t line, std::string_view text, const std::string& fault) {
    print_error("passed over: " + source + ":" + std::to_string(line) + ": " + in_quotes(text) + ": " + fault);
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
      print_error("passed over: " + counted(given.size() - sites.size(), "name", "names") + " of " + source +
                  " that the list does not have");
    return sites;
  };
}

// Finds the sites that the command line selects: those with the given hosts, those with the hosts of a file or of sites
// of the catalogue, or all.
Selection selected_sites(const CommonOptions& options, const Arguments& arguments, const char* command, Moment now,
                         bool exceptions = false) {
  const bool isCatalogued = arguments.catalogued.isGiven();
  if ((arguments.hosts.empty() ? 0 : 1) + (arguments.all ? 1 : 0) + (arguments.from.empty() ? 0 : 1) +
          (isCatalogued ? 1 : 0) !=
      1)
    throw InputError(std::string("bad command line: ") + command + ": give hosts of sites on the list, or --all, or " +
                     (exceptions ? "--from FILE" : "--from FILE, or --site SITE, or --category CATEGORY"));
  if (arguments.all) return {all_sites(exceptions)};
  if (!arguments.hosts.empty()) return {given_sites(arguments, now, exceptions)};
  if (!isCatalogued) return {sites_on_list(sites_of_file(arguments.from), in_quotes(arguments.from), exceptions)};
  std::vector<CatalogueSite> chosen = chosen_sites(options, arguments.catalogued);
  const std::string source = chosen.size() == 1 ? chosen.front().name : counted(chosen.size(), "site", "sites");
  FindSites find = sites_on_list(hosts_of(chosen), source, exceptions);
  return {std::move(find), std::move(chosen)};
}

// Finds the sites that the command line names, each once, with the given scope, and the hosts of the chosen sites of
// the catalogue, with their own scopes. They need not be on the list.
Selection new_sites(const CommonOptions& options, const Arguments& arguments, Scope scope) {
  std::vector<ListedSite> sites = checked_sites(arguments.hosts, scope);
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

void print_change(const Change& change) {
  std::string line = site_text(change.site);
  if (!change.outcome.empty()) line += ": " + change.outcome;
  if (!change.otherLine.empty())
    line += (change.isMeantToBlock ? "; but allowed by the exception " : "; still blocked by the line ") +
            in_quotes(change.otherLine) +
            (change.otherGroup == kDefaultGroupName ? "" : " of the group " + change.otherGroup);
  std::puts(line.c_str());
}

// Prints how many of the sites each outcome has. `one` and `many` name the sites.
void print_summary(std::span<const Change> changes, const std::string& prefix, const char* one, const char* many) {
  std::map<std::string_view, size_t> sitesByOutcome;
  size_t others = 0;
  for (const Change& change : changes) {
    ++sitesByOutcome[change.outcome];
    others += change.otherLine.empty() ? 0 : 1;
  }
  for (const auto& [outcome, sites] : sitesByOutcome)
    std::printf("%s%s: %s\n", prefix.c_str(), counted(sites, one, many).c_str(), std::string(outcome).c_str());
  if (others > 0)
    std::printf("%s%s of them: %s\n", prefix.c_str(), std::to_string(others).c_str(),
                changes.front().isMeantToBlock ? "allowed by exceptions" : "still blocked by other lines");
}

// The hosts of one site of the catalogue have one summary. If there are too many summaries and other sites, they all
// have one.
void print_changes(std::span<const Change> changes) {
  constexpr size_t kMostShown = 20;
  std::vector<std::span<const Change>> parts;
  std::set<const CatalogueSite*> origins;
  for (size_t i = 0; i < changes.size(); i += parts.back().size()) {
    const CatalogueSite* origin = changes[i].origin;
    size_t end = i + 1;
    while (origin != nullptr && end < changes.size() && changes[end].origin == origin) ++end;
    parts.push_back(changes.subspan(i, end - i));
    origins.insert(origin);
  }
  if (parts.size() > kMostShown) {
    origins.erase(nullptr);
    if (origins.empty()) return print_summary(changes, "", "site", "sites");
    return print_summary(changes, counted(origins.size(), "site", "sites") + ", ", "host", "hosts");
  }
  for (const std::span<const Change> part : parts) {
    if (part.front().origin == nullptr) {
      print_change(part.front());
    } else {
      print_summary(part, part.front().origin->name + ", ", "host", "hosts");
    }
  }
}

void print_changes_json(const std::vector<Change>& changes, std::optional<bool> inForce, Moment now) {
  nlohmann::json sites = nlohmann::json::array();
  size_t changed = 0;
  for (const Change& change : changes) {
    nlohmann::json site = site_json(change.site, now);
    site["changed"] = change.changed;
    if (!change.otherLine.empty()) site["otherLine"] = change.otherLine;
    if (change.origin != nullptr) site["site"] = change.origin->id;
    sites.push_back(std::move(site));
    changed += change.changed ? 1 : 0;
  }
  print_json({{"sites", std::move(sites)}, {"changed", changed}, {"inForce", json_or_null(inForce)}});
}

// If the command lets a host pass: finds the line that blocks the host all the same. If the command blocks a host:
// finds the exception that lets the host pass all the same.
void find_opposite_line(const BlockList& list, Change& change, Moment now, const GroupStates& states) {
  const Decision decision = decide(list, change.site.host, now, states);
  const bool isOpposed =
      change.isMeantToBlock ? decision.blocking != nullptr && decision.exception != nullptr : decision.isBlocked();
  if (!isOpposed) return;
  const ListedSite& other = change.isMeantToBlock ? *decision.exception : *decision.blocking;
  change.otherLine = line_of(other);
  change.otherGroup = list.groupOf(other).name;
}

int change_list(const CommonOptions& options, const Arguments& arguments, Moment now, const Selection& selection,
                const ChangeSite& change) {
  std::vector<Change> changes;
  size_t sites = 0;
  const auto keeper = keeper_of_list(options);
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    changes.clear();
    bool changed = false;
    const GroupIndex group = find_group(list, arguments.group);
    const std::string delay = delay_note(list.groups()[group]);
    const auto state = states_of_groups(list, keeper, now)[group];
    const std::string outOfForce =
        state.isInForce ? "" : "; but the group " + state.name + " is " + state_text(list.groups()[group], state, now);
    for (ListedSite& site : selection.find(list, group)) {
      changes.push_back(change(list, std::move(site)));
      changes.back().origin = selection.originOf(changes.back().site.host);
      changed = changed || changes.back().changed;
      changes.back().outcome += changes.back().isMeantToBlock ? outOfForce : delay;
    }
    // Look for opposite lines only after all changes, because a later change may remove or suspend a line that decides
    // about a site that was changed earlier.
    const GroupStates states = group_states(list, now);
    for (Change& each : changes) find_opposite_line(list, each, now, states);
    sites = list.size();
    return changed;
  });
  if (!options.json) {
    print_changes(changes);
    std::fflush(stdout);
  }
  const std::optional<bool> inForce = wait_for_keeper(options, version, sites);
  if (options.json) print_changes_json(changes, inForce, now);
  return kDone;
}

// What blocking a site does. `before`: the site that the list had for this host before the command; null if none.
std::string blocking_outcome(const ListedSite* before, const ListedSite& site, Moment now) {
  if (before == nullptr) return "blocked";
  if (before->isSuspended(now)) return "blocked again, was suspended " + suspension_text(*before->until, now);
  if (before->scope == site.scope) return "already on the list";
  switch (before->scope) {
    case Scope::ExactName:
      return "blocked, was on the list without its subdomains";
    case Scope::Subdomains:
      return "blocked, was on the list with its subdomains";
    case Scope::Exception:
      break;
  }
  return "blocked, was an exception";
}

int block(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const Scope scope = arguments.exactNames ? Scope::ExactName : Scope::Subdomains;
  if (arguments.hosts.empty() && !arguments.catalogued.isGiven())
    throw InputError("bad command line: block: give hosts, or --site SITE, or --category CATEGORY");
  const Selection selection = new_sites(options, arguments, scope);
  const int code = change_list(options, arguments, now, selection, [&](BlockList& list, ListedSite site) {
    if (site.host.find('.') == std::string::npos)
      print_error("only this exact name is blocked: " + in_quotes(site.host) +
                  ": block each site below it by its name");
    const ListedSite* before = list.find(site.host, site.group);
    // Blocking a site of the catalogue does not take the subdomains from a line that has them.
    if (before != nullptr && before->scope == Scope::Subdomains && selection.originOf(site.host) != nullptr)
      site.scope = before->scope;
    std::string outcome = blocking_outcome(before, site, now);
    const bool changed = list.put(site);
    return Change{std::move(site), changed, std::move(outcome)};
  });
  if (const std::string warning = browser_warning(gather_browser_facts()); !warning.empty()) print_error(warning);
  return code;
}

// For a new exception: says when it has an effect, if a group other than its own blocks the host and has a lock or a
// delay. Otherwise empty.
std::string guard_note(const BlockList& list, const ListedSite& site, const std::optional<KeeperState>& keeper,
                       Moment now) {
  for (size_t i = 0; i < list.groups().size(); ++i) {
    const Group& group = list.groups()[i];
    const bool isLocked = lock_end(keeper, group.name).has_value();
    if (i == site.group || (!isLocked && group.delay.count() == 0)) continue;
    GroupStates onlyThis{std::vector<bool>(list.groups().size()), {}};
    onlyThis.isInForce[i] = true;
    const Decision decision = decide(list, site.host, now, onlyThis);
    if (decision.blocking == nullptr && decision.suspended == nullptr) continue;
    return isLocked ? "; has no effect until the lock of the group " + group.name + " ends" : delay_note(group);
  }
  return "";
}

int allow(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const auto keeper = keeper_of_list(options);
  refuse_if_locked(options, arguments.group, "add exceptions");
  return change_list(
      options, arguments, now, new_sites(options, arguments, Scope::Exception), [&](BlockList& list, ListedSite site) {
        const ListedSite* found = list.find(site.host, site.group);
        std::string outcome = found != nullptr && found->scope == site.scope ? "was an exception" : "allowed";
        const bool changed = list.put(site);
        if (decide(list, site.host, now).blocking == nullptr) outcome += "; no line blocks it now";
        outcome += guard_note(list, site, keeper, now);
        return Change{std::move(site), changed, std::move(outcome), false};
      });
}

int unblock(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const Selection selection = selected_sites(options, arguments, "unblock", now);
  refuse_if_locked(options, arguments.group, "remove sites");
  return change_list(options, arguments, now, selection, [](BlockList& list, ListedSite site) {
    list.remove(site.host, site.group);
    return Change{std::move(site), true, "removed from the list", false};
  });
}

int disallow(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  return change_list(options, arguments, now, selected_sites(options, arguments, "disallow", now, true),
                     [](BlockList& list, ListedSite site) {
                       list.remove(site.host, site.group);
                       return Change{std::move(site), true, "no longer an exception"};
                     });
}

int suspend(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const Selection selection = selected_sites(options, arguments, "suspend", now);
  if (!arguments.end.isGiven())
    throw InputError("bad command line: suspend: say how long: --for 30m, or --until 18:00");
  refuse_if_locked(options, arguments.group, "suspend sites");
  const Moment end = read_end_time(arguments.end, options, now);
  return change_list(options, arguments, now, selection, [&](BlockList& list, ListedSite site) {
    // In a group with a delay, a suspension begins after the delay. With --for, its end is later by the delay, too, so
    // that it lasts as long as the user asked.
    const Group& group = list.groupOf(site);
    const Moment until = arguments.end.duration ? end + group.delay : end;
    if (until <= now + group.delay)
      throw InputError("nothing was changed: the suspension would end before it begins: the group " +
                       in_quotes(group.name) + " has a delay of " + duration_text(group.delay) + ": give a later time");
    site.until = until;
    const bool changed = list.put(site);
    return Change{std::move(site), changed, "not blocked " + suspension_text(until, now), false};
  });
}

int resume(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  return change_list(options, arguments, now, selected_sites(options, arguments, "resume", now),
                     [&](BlockList& list, ListedSite site) {
                       const char* outcome = site.isSuspended(now) ? "blocked again" : "was not suspended";
                       site.until.reset();
                       const bool changed = list.put(site);
                       return Change{std::move(site), changed, outcome};
                     });
}

// Reads the part of the list that the command line asks for. Reports the bad lines of the whole list.
BlockList read_and_report(const CommonOptions& options, const Arguments& arguments) {
  StoredList stored = read_list(options.listPath);
  report_bad_lines(stored.list, options.listPath);
  if (!arguments.shownGroup) return std::move(stored.list);
  const GroupIndex group = find_group(stored.list, *arguments.shownGroup);
  BlockList shown;
  const GroupIndex copy = copy_settings(stored.list.groups()[group], shown);
  stored.list.forEachSite([&](ListedSite site) {
    if (std::exchange(site.group, copy) == group) shown.put(std::move(site));
  });
  return shown;
}

int list(const CommonOptions& options, const Arguments& arguments) {
  const BlockList list = read_and_report(options, arguments);
  if (options.json) {
    print_sites_json(list, now_in_seconds());
  } else if (isatty(STDOUT_FILENO) == 1) {
    print_table(list, now_in_seconds());
  } else {
    print_file(list);
  }
  return kDone;
}

int export_list(const CommonOptions& options, const Arguments& arguments) {
  const BlockList list = read_and_report(options, arguments);
  if (options.json) {
    print_sites_json(list, now_in_seconds());
  } else if (arguments.hostsOnly) {
    print_hosts(list);
  } else {
    print_file(list);
  }
  return kDone;
}

using ListCommand = int (*)(const CommonOptions&, const Arguments&);

}  // namespace

void declare_list_commands(CommandSet& commands) {
  auto arguments = std::make_shared<Arguments>();
  auto declare = [&](const char* name, const char* description, ListCommand command) {
    return commands.declare(commands.app, kListGroup, name, description,
                            [&options = commands.options, arguments, command] { return command(options, *arguments); });
  };
  auto takeGroup = [&](CLI::App* command) {
    command->add_option("--group", arguments->group, "The group, instead of the default group")->type_name("GROUP");
    return command;
  };
  auto takeHosts = [&](CLI::App* command) {
    return command->add_option("HOST", arguments->hosts, "Host names or URLs, in any spelling that browsers accept")
        ->type_name("");
  };
  auto takeSites = [&](CLI::App* command) {
    arguments->catalogued.declare(*command);
    return command;
  };
  auto takeListed = [&](CLI::App* command, const char* hosts, const char* all) {
    command->add_option("HOST", arguments->hosts, hosts)->type_name("");
    command->add_flag("--all", arguments->all, all);
    command
        ->add_option("--from", arguments->from,
                     "The hosts of a file, in a form that import reads; \"-\" for standard input")
        ->type_name("FILE");
    return takeGroup(command);
  };
  constexpr const char *kSites = "Hosts of sites on the list", *kAllSites = "All sites of the group";
  CLI::App* blockCommand = takeSites(declare("block", "Block sites, from now on and after every start", block));
  takeHosts(blockCommand);
  CLI::Option* exact =
      takeGroup(blockCommand)
          ->add_flag("--exact", arguments->exactNames, "Block the exact names only, without their subdomains");
  for (const char* option : {"--site", "--category"}) exact->excludes(blockCommand->get_option(option));
  takeSites(takeListed(declare("unblock", "Remove sites from the list", unblock), kSites, kAllSites));
  CLI::App* allowCommand =
      takeGroup(declare("allow", "Except hosts and their subdomains from the sites that are blocked", allow));
  takeHosts(allowCommand)->required();
  takeListed(declare("disallow", "Remove exceptions from the list", disallow), "Hosts of exceptions on the list",
             "All exceptions of the group");
  auto showGroup = [&](CLI::App* command) {
    command->add_option("--group", arguments->shownGroup, "Only this group")->type_name("GROUP");
    return command;
  };
  showGroup(declare("list", "Print the list: a table on a terminal, otherwise the lines of its file", list));

  arguments->end.declare(
      *takeSites(takeListed(declare("suspend", "Unblock sites for a while", suspend), kSites, kAllSites)));
  takeSites(takeListed(declare("resume", "Block suspended sites again at once", resume), kSites, kAllSites));

  declare_import_command(commands);
  showGroup(declare("export", "Print the list in a form that import reads", export_list))
      ->add_flag("--hosts", arguments->hostsOnly, "Print only the hosts, one a line, without exceptions");
}

}  // namespace orvane

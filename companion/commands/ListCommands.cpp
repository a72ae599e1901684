#include "companion/commands/ListCommands.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "companion/commands/BlockListOutput.h"
#include "companion/commands/ImportCommand.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListFile.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/HostnameList.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

struct Arguments {
  std::vector<std::string> hosts;
  bool usualNames = true;
  bool exactNamesOnly = false;
  bool all = false;
  bool hostsOnly = false;
  std::optional<std::string> duration;
  std::optional<std::string> until;
};

// What a command did to one site.
struct Change {
  BlockedSite site;
  bool changed = false;
  std::string outcome;                    // in words; may be empty
  bool unblocks = false;                  // the site's line on the list no longer blocks the site's names
  std::vector<std::string> stillBlocked;  // the site's names that another site's line still blocks
};

// The two steps of a command: FindSites returns the sites that the command is about, each once; ChangeSite changes one
// of them.
using FindSites = std::function<std::vector<BlockedSite>(const BlockList& list, const std::vector<std::string>& hosts)>;
using ChangeSite = std::function<Change(BlockList& list, BlockedSite site)>;

// Returns the hosts in the form that browsers send. Reports each argument that is not a host name, and then throws
// InputError.
std::vector<std::string> checked_hosts(const std::vector<std::string>& given) {
  std::vector<std::string> hosts;
  std::string name, fault;
  for (const std::string& host : given) {
    if (read_hostname(host, name, fault)) {
      hosts.push_back(name);
    } else {
      print_error("not a host name: " + in_quotes(host) + ": " + fault);
    }
  }
  const size_t refused = given.size() - hosts.size();
  if (refused > 0)
    throw InputError("nothing was changed: " + std::to_string(refused) + " of " +
                     counted(given.size(), "name", "names") + " refused: correct the names above");
  return hosts;
}

// Returns the sites on the list that the hosts belong to. Reports each host that is not on the list, and then throws
// InputError.
std::vector<BlockedSite> listed_sites(const BlockList& list, const std::vector<std::string>& hosts) {
  std::vector<BlockedSite> sites;
  std::set<const BlockedSite*> seen;
  size_t unknown = 0;
  for (const std::string& host : hosts) {
    const BlockedSite* site = list.find(host);
    if (site == nullptr) {
      ++unknown;
      print_error("not on the list: " + in_quotes(host) + ": see orvanectl list");
    } else if (seen.insert(site).second) {
      sites.push_back(*site);
    }
  }
  if (unknown > 0)
    throw InputError("nothing was changed: " + std::to_string(unknown) + " of " +
                     counted(hosts.size(), "host", "hosts") + " not on the list: leave out the hosts above");
  return sites;
}

std::vector<BlockedSite> all_sites(const BlockList& list, const std::vector<std::string>&) { return list.sites(); }

// The sites of the given hosts, or all sites with --all.
FindSites wanted_sites(const Arguments& arguments, const char* command) {
  if (arguments.all != arguments.hosts.empty())
    throw InputError(std::string("bad command line: ") + command + ": give hosts of sites on the list, or --all");
  return arguments.all ? all_sites : listed_sites;
}

void print_change(const Change& change) {
  std::string line = site_text(change.site);
  if (!change.outcome.empty()) line += ": " + change.outcome;
  for (size_t i = 0; i < change.stillBlocked.size(); ++i)
    line += (i == 0 ? "; still blocked by another line: " : ", ") + change.stillBlocked[i];
  std::puts(line.c_str());
}

void print_changes_json(const std::vector<Change>& changes, std::optional<bool> inForce, Moment now) {
  nlohmann::json sites = nlohmann::json::array();
  size_t changed = 0;
  for (const Change& change : changes) {
    nlohmann::json site = site_json(change.site, now);
    site["changed"] = change.changed;
    if (!change.stillBlocked.empty()) site["stillBlocked"] = change.stillBlocked;
    sites.push_back(std::move(site));
    changed += change.changed ? 1 : 0;
  }
  print_json({{"sites", std::move(sites)},
              {"changed", changed},
              {"inForce", inForce ? nlohmann::json(*inForce) : nlohmann::json()}});
}

// The names of `site` that a line of another site still blocks.
std::vector<std::string> names_still_blocked(const BlockList& list, const BlockedSite& site, Moment now) {
  auto blocks = [&](const BlockedSite* other) { return other != nullptr && !other->isSuspended(now); };
  std::vector<std::string> names;
  for (std::string& name : names_of(site)) {
    if (blocks(list.find(name)) || blocks(list.findByUsualName(name))) names.push_back(std::move(name));
  }
  return names;
}

int change_list(const CommonOptions& options, const Arguments& arguments, Moment now, const FindSites& find,
                const ChangeSite& change) {
  const std::vector<std::string> hosts = checked_hosts(arguments.hosts);
  std::vector<Change> changes;
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    changes.clear();
    bool changed = false;
    for (BlockedSite& site : find(list, hosts)) {
      changes.push_back(change(list, std::move(site)));
      changed = changed || changes.back().changed;
    }
    // Check only after all changes: a later change may remove or suspend a site that still blocks a name of an earlier
    // one.
    for (Change& each : changes) {
      if (each.unblocks) each.stillBlocked = names_still_blocked(list, each.site, now);
    }
    sites = list.size();
    return changed;
  });
  if (!options.json) {
    for (const Change& each : changes) print_change(each);
    std::fflush(stdout);
  }
  const std::optional<bool> inForce = wait_for_keeper(options, version, sites);
  if (options.json) print_changes_json(changes, inForce, now);
  return kDone;
}

// Describes the entry that the site had on the list before "block" changed it.
std::string previous_state(const BlockedSite& before, const BlockedSite& site, Moment now) {
  if (before.isSuspended(now)) return "blocked again, was suspended " + suspension_text(*before.until, now);
  if (before.usualNames == site.usualNames) return "already on the list";
  return site.usualNames ? "was on the list without its usual names" : "was on the list with its usual names";
}

int block(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const bool usualNames = arguments.usualNames && !arguments.exactNamesOnly;
  auto asked = [&](const BlockList&, const std::vector<std::string>& hosts) {
    std::vector<BlockedSite> sites;
    std::set<std::string> seen;
    for (const std::string& host : hosts) {
      if (host.find('.') == std::string::npos)
        print_error("only this exact name is blocked: " + in_quotes(host) + ": block each site below it by its name");
      BlockedSite site{usualNames ? std::string(site_of(host)) : host, usualNames, std::nullopt};
      if (seen.insert(site.host).second) sites.push_back(std::move(site));
    }
    return sites;
  };
  return change_list(options, arguments, now, asked, [&](BlockList& list, BlockedSite site) {
    const BlockedSite* found = list.find(site.host);
    std::string outcome = found != nullptr && found->host == site.host ? previous_state(*found, site, now) : "";
    const bool changed = list.put(site);
    return Change{std::move(site), changed, std::move(outcome), false, {}};
  });
}

int unblock(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  return change_list(options, arguments, now, listed_sites, [&](BlockList& list, BlockedSite site) {
    list.remove(site.host);
    return Change{std::move(site), true, "removed from the list", true, {}};
  });
}

int suspend(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const FindSites find = wanted_sites(arguments, "suspend");
  if (!arguments.duration && !arguments.until)
    throw InputError("bad command line: suspend: say how long: --for 30m, or --until 18:00");
  const Moment until =
      arguments.duration ? now + read_duration(*arguments.duration) : read_until(*arguments.until, now);
  return change_list(options, arguments, now, find, [&](BlockList& list, BlockedSite site) {
    site.until = until;
    const bool changed = list.put(site);
    return Change{std::move(site), changed, "not blocked " + suspension_text(until, now), true, {}};
  });
}

int resume(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const FindSites find = wanted_sites(arguments, "resume");
  return change_list(options, arguments, now, find, [&](BlockList& list, BlockedSite site) {
    const char* outcome = site.isSuspended(now) ? "blocked again" : "was not suspended";
    site.until.reset();
    const bool changed = list.put(site);
    return Change{std::move(site), changed, outcome, false, {}};
  });
}

BlockList read_and_report(const CommonOptions& options) {
  StoredList stored = read_list(options.listPath);
  report_bad_lines(stored.list, options.listPath);
  return std::move(stored.list);
}

int list(const CommonOptions& options, const Arguments&) {
  const BlockList list = read_and_report(options);
  if (options.json) {
    print_sites_json(list, now_in_seconds());
  } else if (isatty(STDOUT_FILENO) == 1) {
    print_table(list, now_in_seconds());
  } else {
    print_lines(list);
  }
  return kDone;
}

int export_list(const CommonOptions& options, const Arguments& arguments) {
  const BlockList list = read_and_report(options);
  if (options.json) {
    print_sites_json(list, now_in_seconds());
  } else if (arguments.hostsOnly) {
    print_hosts(list);
  } else {
    print_lines(list);
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
  auto takeHosts = [&](CLI::App* command, const char* hosts, bool orAll = false) {
    command->add_option("HOST", arguments->hosts, hosts)->required(!orAll)->type_name("");
    if (orAll) command->add_flag("--all", arguments->all, "All sites on the list");
    return command;
  };
  CLI::App* blockCommand = takeHosts(declare("block", "Block sites, from now on and after every start", block),
                                     "Host names, in any spelling that browsers accept");
  CLI::Option* www =
      blockCommand->add_flag("--www", arguments->usualNames, "Also block www.HOST and m.HOST (the default)");
  blockCommand->add_flag("--no-www", arguments->exactNamesOnly, "Block the exact names only")->excludes(www);

  takeHosts(declare("unblock", "Remove sites from the list", unblock), "Hosts of sites on the list");
  declare("list", "Print the list: a table on a terminal, otherwise the lines of its file", list);

  CLI::App* suspendCommand =
      takeHosts(declare("suspend", "Unblock sites for a while", suspend), "Hosts of sites on the list", true);
  CLI::Option* duration =
      suspendCommand->add_option("--for", arguments->duration, "How long, as in 30m, 1h30m, 2d")->type_name("TIME");
  suspendCommand
      ->add_option("--until", arguments->until,
                   "Until when: 18:00, \"tomorrow 9:00\", \"2026-12-24 18:00\", 2030-01-31T18:00:00+01:00")
      ->type_name("TIME")
      ->excludes(duration);
  takeHosts(declare("resume", "Block suspended sites again at once", resume), "Hosts of sites on the list", true);

  declare_import_command(commands);
  declare("export", "Print the list in a form that import reads", export_list)
      ->add_flag("--hosts", arguments->hostsOnly, "Print only the hosts, one a line");
}

}  // namespace orvane

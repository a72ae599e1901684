#include "companion/commands/ListCommands.h"

#include <unistd.h>

#include <cstdio>
#include <functional>
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

#include "companion/commandline/GroupState.h"
#include "companion/commands/BlockListOutput.h"
#include "companion/commands/BrowserWarning.h"
#include "companion/commands/EndTime.h"
#include "companion/commands/ImportCommand.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/keeper/ListsBeside.h"
#include "companion/list/BlockListLine.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListGuard.h"
#include "companion/list/ReadOnlyList.h"
#include "companion/sites/SiteSelection.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

struct Arguments : SiteArguments {
  bool exactNames = false;
  std::string group{kDefaultGroupName};
  std::optional<std::string> shownGroup;  // by list and export; nothing for all groups
  std::string shownList;                  // a read-only list; empty for the machine's list
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
  MaybeHeldBack heldBack{};
};

// Changes one of the sites that a command is about. `removal`: what holds the change back if it lets the host pass.
using ChangeSite = std::function<Change(BlockList& list, ListedSite site, const MaybeHeldBack& removal)>;

void print_change(const Change& change, const std::string& prefix) {
  std::string line = prefix + site_text(change.site);
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

// Prints one summary for the hosts of each site of the catalogue, and a line for each other site. If these are too many
// lines, prints one summary of all sites. Each line begins with the prefix.
void print_changes(std::span<const Change> changes, const std::string& prefix) {
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
    if (origins.empty()) return print_summary(changes, prefix, "site", "sites");
    return print_summary(changes, prefix + counted(origins.size(), "site", "sites") + ", ", "host", "hosts");
  }
  for (const std::span<const Change> part : parts) {
    if (part.front().origin == nullptr) {
      print_change(part.front(), prefix);
    } else {
      print_summary(part, prefix + part.front().origin->name + ", ", "host", "hosts");
    }
  }
}

void print_changes_json(const std::vector<Change>& changes, std::optional<bool> isSent, Moment now) {
  nlohmann::json sites = nlohmann::json::array();
  std::vector<HeldBack> heldBack;
  size_t changed = 0;
  for (const Change& change : changes) {
    nlohmann::json site = site_json(change.site, now);
    site["changed"] = change.changed;
    if (!change.otherLine.empty()) site["otherLine"] = change.otherLine;
    if (change.origin != nullptr) site["site"] = change.origin->id;
    if (change.heldBack) site["heldBack"] = to_json(*change.heldBack);
    add_unique(heldBack, change.heldBack);
    sites.push_back(std::move(site));
    changed += change.changed ? 1 : 0;
  }
  nlohmann::json result{{"sites", std::move(sites)}, {"changed", changed}};
  add_effect(result, isSent, heldBack);
  print_json(result);
}

// For each host that the command lets pass: finds the line that blocks the host all the same. For each host that it
// blocks: finds the exception that lets the host pass all the same.
void find_opposite_lines(const BlockList& list, Moment now, std::vector<Change>& changes) {
  const GroupStates states = group_states(list, now);
  // Most lists have no exceptions, and after `suspend --all` nothing is blocked. Then there is nothing to find, and
  // looking for it would take most of the time of a command that changes a large list.
  bool hasExceptions = false, hasBlocked = false;
  list.forEachSite([&](const ListedSite& site) {
    if (!states.isInForce[site.group]) return;
    hasExceptions = hasExceptions || site.scope == Scope::Exception;
    hasBlocked = hasBlocked || (site.scope != Scope::Exception && !site.isSuspended(now));
  });
  for (Change& change : changes) {
    if (change.isMeantToBlock ? !hasExceptions : !hasBlocked) continue;
    const Decision decision = decide(list, change.site.host, now, states);
    const bool isOpposed =
        change.isMeantToBlock ? decision.blocking != nullptr && decision.exception != nullptr : decision.isBlocked();
    if (!isOpposed) continue;
    const ListedSite& other = change.isMeantToBlock ? *decision.exception : *decision.blocking;
    change.otherLine = line_of(other);
    change.otherGroup = list.groupOf(other).name;
  }
}

// What holds back the change of a site: `blocking` if the change blocks the site, `removal` if it lets the host pass.
struct SiteHeldBack {
  MaybeHeldBack blocking, removal;
};
std::vector<SiteHeldBack> find_what_holds_back(const CommonOptions& options, const BlockList& list, GroupIndex group,
                                               const std::optional<KeeperState>& keeper, Moment now,
                                               const std::vector<ListedSite>& sites) {
  const auto state = states_of_groups(list, keeper, now)[group];
  std::vector<SiteHeldBack> results(sites.size(), {blocking_held_back(list.groups()[group], state),
                                                   removal_held_back(list.groups()[group], state, now)});
  std::vector<ListedSite> exceptions;
  for (const ListedSite& site : sites) {
    if (site.scope == Scope::Exception) exceptions.push_back(site);
  }
  if (exceptions.empty()) return results;
  const auto inForce = list_in_force(options, keeper);
  const auto found = exceptions_held_back(inForce ? *inForce : list, exceptions, keeper, now);
  for (size_t i = 0, next = 0; i < sites.size(); ++i) {
    if (sites[i].scope != Scope::Exception) continue;
    results[i].removal = found[next++];
  }
  return results;
}

// Adds to the outcome of each change that lets a host pass which read-only list still blocks the host. If there are
// many changes, does nothing, because it would search all lists for each of them.
void note_lists_beside(std::vector<Change>& changes, const std::optional<KeeperState>& keeper) {
  constexpr size_t kMostNoted = 20;
  if (changes.size() > kMostNoted) return;
  ListsBeside lists(keeper);
  for (Change& change : changes) {
    if (change.isMeantToBlock || !change.otherLine.empty()) continue;
    const std::string& host = change.site.host;
    const auto line = lists.blockingLine(host);
    if (!line) continue;
    if (line->rank == Rank::Fixed) {
      change.outcome += "; but " + line_text(*line) + ", which this command does not change, still blocks it";
    } else if (change.site.scope != Scope::Exception && !(change.site.until && line->site.host == host)) {
      change.outcome += "; but " + line_text(*line) + " still blocks it: orvanectl allow " + host;
    }
  }
}

int change_list(const CommonOptions& options, const Arguments& arguments, Moment now, const Selection& selection,
                const ChangeSite& change) {
  std::vector<Change> changes;
  std::vector<std::string> notes;
  size_t sites = 0;
  const auto keeper = keeper_of_list(options);
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    changes.clear();
    notes.clear();
    bool changed = false;
    const GroupIndex group = find_group(list, arguments.group, keeper);
    std::vector<ListedSite> found = selection.find(list, group, notes);
    const auto heldBack = find_what_holds_back(options, list, group, keeper, now, found);
    for (size_t i = 0; i < found.size(); ++i) {
      const ListedSite* old = list.find(found[i].host, found[i].group);
      const auto before = old != nullptr ? std::optional(*old) : std::nullopt;
      Change& made = changes.emplace_back(change(list, std::move(found[i]), heldBack[i].removal));
      made.origin = selection.originOf(made.site.host);
      const auto& [blocking, removal] = heldBack[i];
      const bool isRemoval = !made.isMeantToBlock || (removal && before && blocks_less(&made.site, *before));
      made.heldBack = isRemoval ? removal : blocking;
      const auto earlier =
          made.changed ? std::nullopt : earlier_change_held_back(keeper, arguments.group, made.site.host);
      if (earlier) made.heldBack = earlier;
      made.outcome += earlier ? earlier_change_text(*earlier, now) : held_back_text(made.heldBack, now);
      changed = changed || made.changed;
    }
    // Look for opposite lines only after all changes, because a later change may remove or suspend a line that decides
    // about a site that was changed earlier.
    find_opposite_lines(list, now, changes);
    sites = list.size();
    return changed;
  });
  for (const std::string& note : notes) print_error(note);
  note_lists_beside(changes, keeper);
  const Effect effect = wait_for_keeper(options, version, sites);
  const std::string prefix = report_effect(effect);
  if (options.json) {
    print_changes_json(changes, effect.isInForce, now);
  } else if (changes.empty()) {
    std::printf("nothing to change: the group %s has %s\n", arguments.group.c_str(), selection.none);
  } else {
    print_changes(changes, prefix);
  }
  std::fflush(stdout);  // a warning on standard error may follow
  return kDone;
}

// What blocking a site does. `before`: the site that the list had for this host before the command; null if none.
std::string blocking_outcome(const ListedSite* before, const ListedSite& site, Moment now) {
  if (before == nullptr) return "blocked";
  if (before->isSuspended(now)) return "blocked again";
  if (before->scope == site.scope) return "already on the list";
  switch (before->scope) {
    case Scope::ExactName:
      return "blocked, now with its subdomains";
    case Scope::Subdomains:
      return "blocked, now without its subdomains";
    case Scope::Exception:
      break;
  }
  return "blocked, no longer an exception";
}

int block(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const Scope scope = arguments.exactNames ? Scope::ExactName : Scope::Subdomains;
  if (arguments.hosts.empty() && !arguments.catalogued.isGiven())
    throw InputError("bad command line: block: give hosts, or --site SITE, or --category CATEGORY");
  const Selection selection = new_sites(options, arguments, scope);
  const int code = change_list(options, arguments, now, selection, [&](BlockList& list, ListedSite site, const auto&) {
    if (site.host.find('.') == std::string::npos)
      print_error("only this exact name is blocked: " + in_quotes(shown_hostname(site.host)) +
                  ": block each site below it by its name");
    const ListedSite* before = list.find(site.host, site.group);
    // Blocking a site of the catalogue does not take the subdomains from a line that has them.
    if (before != nullptr && before->scope == Scope::Subdomains && selection.originOf(site.host) != nullptr)
      site.scope = before->scope;
    if (before != nullptr && blocks_less(&site, *before))
      refuse_if_locked(options, arguments.group, "take the subdomains from a site");
    std::string outcome = blocking_outcome(before, site, now);
    const bool changed = list.put(site);
    return Change{std::move(site), changed, std::move(outcome)};
  });
  if (const std::string warning = warning_about_browsers(); !warning.empty()) print_error(warning);
  return code;
}

int allow(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  refuse_if_locked(options, arguments.group, "add exceptions");
  const auto keeper = keeper_of_list(options);
  ListsBeside beside(keeper);
  const auto held = list_in_force(options, keeper);
  const GroupStates heldStates = held ? in_force(states_of_groups(*held, keeper, now)) : GroupStates();
  return change_list(options, arguments, now, new_sites(options, arguments, Scope::Exception),
                     [&](BlockList& list, ListedSite site, const auto&) {
                       const ListedSite* found = list.find(site.host, site.group);
                       const bool isBlockedSite = found != nullptr && found->scope != site.scope;
                       std::string outcome = found != nullptr && !isBlockedSite ? "already an exception" : "allowed";
                       const bool changed = list.put(site);
                       const bool isBlocking = decide(list, site.host, now).blocking != nullptr ||
                                               beside.blockingLine(site.host) ||
                                               (held && decide(*held, site.host, now, heldStates).blocking != nullptr);
                       if (isBlockedSite) {
                         outcome += "; its own line became this exception: to block it again: orvanectl block " +
                                    site.host + group_option(list, site);
                       } else if (!isBlocking) {
                         outcome += "; no line blocks it now";
                       }
                       return Change{std::move(site), changed, std::move(outcome), false};
                     });
}

int unblock(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const Selection selection = selected_sites(options, arguments, "unblock", now);
  refuse_if_locked(options, arguments.group, "remove sites");
  return change_list(options, arguments, now, selection, [](BlockList& list, ListedSite site, const auto&) {
    list.remove(site.host, site.group);
    return Change{std::move(site), true, "removed from the list", false};
  });
}

int disallow(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  return change_list(options, arguments, now, selected_sites(options, arguments, "disallow", now),
                     [](BlockList& list, ListedSite site, const auto&) {
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
  std::map<Moment, std::string> texts;  // made once for each moment, because a large list has many sites
  return change_list(options, arguments, now, selection, [&](BlockList& list, ListedSite site, const auto& removal) {
    // In a group with a delay, a suspension begins after the delay. With --for, its end is later by the delay, too, so
    // that it lasts as long as the user asked.
    const bool isDelayed = removal && removal->by == HeldBack::By::Delay;
    const auto delay = isDelayed ? *removal->until - now : std::chrono::seconds(0);
    const Moment until = arguments.end.duration ? end + delay : end;
    if (until <= now + delay)
      throw InputError("nothing was changed: the suspension would end before it begins: it begins in " +
                       duration_text(delay) + ", after the delay of the group " + in_quotes(list.groupOf(site).name) +
                       ": give a later time");
    site.until = until;
    const bool changed = list.put(site);
    std::string& text = texts[until];
    if (text.empty()) text = "not blocked " + suspension_text(until, now);
    return Change{std::move(site), changed, text, false};
  });
}

int resume(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  return change_list(options, arguments, now, selected_sites(options, arguments, "resume", now),
                     [&](BlockList& list, ListedSite site, const auto&) {
                       const char* outcome = site.isSuspended(now) ? "blocked again" : "had no suspension";
                       site.until.reset();
                       const bool changed = list.put(site);
                       return Change{std::move(site), changed, outcome};
                     });
}

// The path of a read-only list. `name` is the path of its file, or the file's name with or without `.list`.
std::string read_only_path(const CommonOptions& options, const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  for (const std::string& folder : {options.dropInsPath, options.subscriptionsPath}) {
    for (const char* ending : {"", ".list"}) {
      std::string path = folder;
      path.append("/").append(name).append(ending);
      if (path.ends_with(".list") && !list_version(path).empty()) return path;
    }
  }
  throw InputError("no such list: " + in_quotes(name) + ": see orvanectl status");
}

BlockList read_shown_list(const CommonOptions& options, const Arguments& arguments) {
  if (arguments.shownList.empty()) {
    BlockList list = read_list(options.listPath).list;
    report_bad_lines(list.badLines(), list.badLines().size(), options.listPath);
    return list;
  }
  const std::string path = read_only_path(options, arguments.shownList);
  const bool isFetched = path.starts_with(options.subscriptionsPath + "/");
  std::string lines;
  const auto list =
      ReadOnlyList::parse(read_list_text(path), isFetched ? ListKind::Subscription : ListKind::DropIn, &lines);
  report_bad_lines(list.badLines, list.badLineCount, path);
  return BlockList::parse(lines);
}

// The sites and settings of one group.
BlockList part_of(const BlockList& list, GroupIndex group) {
  BlockList part;
  const GroupIndex copy = copy_settings(list.groups()[group], part);
  list.forEachSite([&](ListedSite site) {
    if (std::exchange(site.group, copy) == group) part.put(std::move(site));
  });
  return part;
}

// Reads the part of the list that the command line asks for. Reports the bad lines of the whole list.
// `mayBeGone`: the list need not have the group.
BlockList read_and_report(const CommonOptions& options, const Arguments& arguments, bool mayBeGone = false) {
  BlockList list = read_shown_list(options, arguments);
  if (!arguments.shownGroup) return list;
  if (mayBeGone && !list.findGroup(*arguments.shownGroup)) return {};
  return part_of(list, find_group(list, *arguments.shownGroup, {}));
}

void print_lists_beside(const std::optional<KeeperState>& keeper) {
  if (!keeper) return;
  for (const auto& list : keeper->readOnlyLists) {
    const std::string text = in_quotes(list.path) + ": " + counted(list.names, "name", "names") +
                             (list.isInForce ? ", in force, too" : ", not in force");
    std::printf("%s\n", coloured(text, Colour::Faint).c_str());
  }
}

int list(const CommonOptions& options, const Arguments& arguments) {
  const Moment now = now_in_seconds();
  const bool isOwn = arguments.shownList.empty();  // not a read-only list
  const auto keeper = isOwn ? keeper_of_shown_list(options) : std::nullopt;
  auto heldList = list_in_force(options, keeper);
  const auto heldGroup = heldList && arguments.shownGroup ? heldList->findGroup(*arguments.shownGroup) : std::nullopt;
  if (heldList && arguments.shownGroup) heldList = heldGroup ? part_of(*heldList, *heldGroup) : BlockList();
  const BlockList list = read_and_report(options, arguments, heldGroup.has_value());
  ListInForce inForce = isOwn ? find_in_force(list, keeper, heldList, now) : ListInForce();
  inForce.shownGroup = arguments.shownGroup;
  if (options.json) {
    print_sites_json(list, isOwn ? &inForce : nullptr, now);
  } else if (isatty(STDOUT_FILENO) == 1) {
    print_table(list, inForce, now);
    print_lists_beside(keeper);
  } else {
    print_file(list, &inForce, now);
  }
  return kDone;
}

int export_list(const CommonOptions& options, const Arguments& arguments) {
  BlockList list = read_and_report(options, arguments);
  if (options.json) {
    if (arguments.hostsOnly) {
      for (const ListedSite& site : list.sites()) {
        if (site.scope == Scope::Exception) list.remove(site.host, site.group);
      }
    }
    print_sites_json(list, nullptr, now_in_seconds());
  } else if (arguments.hostsOnly) {
    print_hosts(list);
  } else {
    print_file(list, nullptr, now_in_seconds());
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
  CLI::App* allowCommand = takeGroup(
      declare("allow", "Do not block hosts and their subdomains, although a blocked site covers them", allow));
  takeHosts(allowCommand)->required();
  takeListed(declare("disallow", "Remove exceptions from the list", disallow), "Hosts of exceptions on the list",
             "All exceptions of the group");
  auto showGroup = [&](CLI::App* command) {
    command->add_option("--group", arguments->shownGroup, "Only this group")->type_name("GROUP");
    return command;
  };
  showGroup(declare("list", "Print the list: a table on a terminal, otherwise the lines of its file", list))
      ->add_option("--from", arguments->shownList, "A read-only list, in place of the machine's list")
      ->type_name("NAME");

  arguments->end.declare(
      *takeSites(takeListed(declare("suspend", "Unblock sites for a while", suspend), kSites, kAllSites)));
  takeSites(takeListed(declare("resume", "Block suspended sites again at once", resume), kSites, kAllSites));

  declare_import_command(commands);
  showGroup(declare("export", "Print the list in a form that import reads", export_list))
      ->add_flag("--hosts", arguments->hostsOnly, "Print only the hosts, one a line, without exceptions");
}

}  // namespace orvane

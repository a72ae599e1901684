#include "companion/commands/ImportCommand.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "companion/commandline/GroupState.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListImport.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/ProgressBar.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

struct Arguments {
  std::string file;
  bool subdomains = false;
  bool exactNames = false;
  bool replace = false;
  bool undo = false;
  std::optional<std::string> group;
};

// The file that records the last import into the list, for --undo.
std::string record_path(const CommonOptions& options) { return options.listPath + ".import"; }

struct Outcome {
  ImportedSites read;
  std::vector<RejectedLine> rejections;  // the first kMostRejections
  ImportCounts counts;
  std::vector<HeldBack> removals;                       // what holds back the removal of sites
  std::vector<std::pair<HeldBack, size_t>> openings{};  // what holds back exceptions and suspensions, and how many
  std::vector<HeldBack> blockings{};                    // what holds back new and changed sites
  double seconds = 0;                                   // from the start until the list is written
  Effect effect{};

  std::vector<HeldBack> heldBack() const {
    std::vector<HeldBack> all = removals;
    for (const auto& [each, sites] : openings) add_unique(all, each);
    for (const HeldBack& each : blockings) add_unique(all, each);
    return all;
  }
};

// What holds back the removal of sites of the groups.
std::vector<HeldBack> find_removals(const BlockList& list, const std::set<std::string>& groups,
                                    const std::optional<KeeperState>& keeper, Moment now) {
  std::vector<HeldBack> removals;
  for (const auto& state : states_of_groups(list, keeper, now)) {
    const auto group = list.findGroup(state.name);
    if (group && groups.contains(state.name))
      add_unique(removals, removal_held_back(list.groups()[*group], state, now));
  }
  return removals;
}

// What holds back the sites that the import adds to groups that are not in force.
std::vector<HeldBack> find_blockings(const BlockList& list, const std::set<GroupIndex>& groups,
                                     const std::optional<KeeperState>& keeper, Moment now) {
  std::vector<HeldBack> blockings;
  const auto states = states_of_groups(list, keeper, now);
  for (const GroupIndex group : groups) add_unique(blockings, blocking_held_back(list.groups()[group], states[group]));
  return blockings;
}

// The locks, delays and other reasons that hold back imported exceptions and suspensions; with each reason, how many it
// holds back. `list`: the list before the import.
std::vector<std::pair<HeldBack, size_t>> find_openings(const CommonOptions& options, const BlockList& list,
                                                       const ImportedSites& read,
                                                       const std::optional<KeeperState>& keeper, Moment now) {
  std::vector<std::pair<HeldBack, size_t>> openings;
  const auto add = [&](const MaybeHeldBack& heldBack) {
    if (!heldBack) return;
    auto known = std::find_if(openings.begin(), openings.end(), [&](auto& each) { return each.first == *heldBack; });
    if (known == openings.end()) known = openings.emplace(known, *heldBack, 0);
    ++known->second;
  };
  const auto states = states_of_groups(list, keeper, now);
  std::vector<std::optional<GroupIndex>> places;
  for (const Group& group : read.groups) places.push_back(list.findGroup(group.name));
  std::vector<ListedSite> exceptions;
  for (const ListedSite& site : read.sites) {
    const auto group = places[site.group];
    const ListedSite* old = group ? list.find(site.host, *group) : nullptr;
    if (site.scope == Scope::Exception && (old == nullptr || old->scope != site.scope)) exceptions.push_back(site);
    if (old != nullptr && site.isSuspended(now) && !old->isSuspended(now))
      add(removal_held_back(list.groups()[*group], states[*group], now));
  }
  if (exceptions.empty()) return openings;
  const auto inForce = list_in_force(options, keeper);
  for (const MaybeHeldBack& each : exceptions_held_back(inForce ? *inForce : list, exceptions, keeper, now)) add(each);
  return openings;
}

void print_removals(const std::vector<HeldBack>& removals, Moment now) {
  for (const HeldBack& each : removals)
    std::printf("%s: its removed sites stay blocked for %s\n", each.group.c_str(),
                duration_text(*each.until - now).c_str());
}

void print_outcome(const Outcome& outcome, const std::string& prefix, Moment now) {
  const auto& [read, rejections, counts, removals, openings, blockings, seconds, effect] = outcome;
  std::printf("%s, %s, in %.2f s\n", counted(read.lines, "line", "lines").c_str(),
              counted(read.sites.size(), "site", "sites").c_str(), seconds);
  std::printf("%s%zu added, %zu changed, %zu already on the list, %zu removed\n", prefix.c_str(), counts.added,
              counts.changed, counts.unchanged, counts.removed);
  std::printf("%s, %zu skipped (localhost and the like), %zu rejected\n",
              counted(read.duplicates, "duplicate", "duplicates").c_str(), read.skipped, read.rejected);
  if (read.partialRules > 0)
    std::printf("%s skipped, because only whole sites can be blocked\n",
                counted(read.partialRules, "rule for parts of sites", "rules for parts of sites").c_str());
  if (counts.groups > 0)
    std::printf("%s%s added or changed\n", prefix.c_str(), counted(counts.groups, "group", "groups").c_str());
  print_removals(removals, now);
  for (const auto& [heldBack, sites] : openings)
    std::printf("%s: %s\n", held_back_text(heldBack, now).substr(2).c_str(),
                counted(sites, "exception or suspension", "exceptions or suspensions").c_str());
  for (const HeldBack& each : blockings)
    std::printf("%s: saved%s\n", each.group.c_str(), held_back_text(each, now).c_str());
  if (counts.hasChanges()) std::puts("To take this back: orvanectl import --undo");
}

void print_outcome_json(const Outcome& outcome) {
  const auto& [read, rejections, counts, removals, openings, blockings, seconds, effect] = outcome;
  nlohmann::json rejectedLines = nlohmann::json::array();
  for (const auto& [line, text, fault] : rejections)
    rejectedLines.push_back({{"line", line}, {"text", text}, {"fault", fault}});
  nlohmann::json result{{"lines", read.lines},
                        {"sites", read.sites.size()},
                        {"added", counts.added},
                        {"changed", counts.changed},
                        {"unchanged", counts.unchanged},
                        {"removed", counts.removed},
                        {"groups", counts.groups},
                        {"duplicates", read.duplicates},
                        {"skipped", read.skipped},
                        {"skippedRules", read.partialRules},
                        {"rejected", read.rejected},
                        {"rejectedLines", std::move(rejectedLines)},
                        {"seconds", seconds}};
  add_effect(result, effect.isInForce, outcome.heldBack());
  print_json(result);
}

std::optional<Scope> wanted_scope(const Arguments& arguments) {
  if (arguments.subdomains) return Scope::Subdomains;
  if (arguments.exactNames) return Scope::ExactName;
  return std::nullopt;
}

ImportedSites read_file(const Arguments& arguments, const std::string& source, ProgressBar& bar, std::string_view text,
                        std::vector<RejectedLine>& rejections) {
  constexpr size_t kMostRejections = 1000;
  auto rejected = [&](size_t line, std::string_view what, const std::string& fault) {
    if (rejections.size() < kMostRejections) rejections.push_back({line, std::string(what), fault});
  };
  auto progress = [&](size_t bytes, size_t lines) { bar.show(bytes, text.size(), counted(lines, "line", "lines")); };
  try {
    ImportedSites read = read_import(text, {wanted_scope(arguments), arguments.group}, rejected, progress);
    bar.erase();
    for (const std::string& each : rejection_texts("not imported", source, rejections, read.rejected))
      print_error(each);
    return read;
  } catch (const InputError& error) {
    throw InputError("cannot import: " + source + ": " + error.what());
  }
}

// Whether the file has neither sites nor groups.
bool is_empty(const ImportedSites& read, const Arguments& arguments) {
  const Group& first = read.groups.front();
  const bool isPlain = first.name == kDefaultGroupName && has_same_settings(first, Group());
  return read.sites.empty() && read.groups.size() == 1 && (isPlain || arguments.group);
}

int import(const CommonOptions& options, const Arguments& arguments) {
  const auto started = std::chrono::steady_clock::now();
  const std::string source = arguments.file == "-" ? "standard input" : arguments.file;
  Outcome outcome;
  {
    const std::string text = read_input(arguments.file);
    ProgressBar bar(!options.json);
    outcome.read = read_file(arguments, source, bar, text, outcome.rejections);
    // With --replace, a file that is empty or has only comments empties the group. A file that has other lines, but
    // none with a host, is probably not a list.
    const bool hasOtherLines = outcome.read.rejected + outcome.read.partialRules > 0;
    if (is_empty(outcome.read, arguments) && (!arguments.replace || hasOtherLines))
      throw InputError("nothing was imported: " + source + ": it has no line with a host name: give a list of names");
  }
  for (const Group& group : outcome.read.groups) {
    if (arguments.replace) refuse_if_locked(options, group.name, "replace sites");
  }
  size_t sites = 0;
  const Moment now = now_in_seconds();
  const auto keeper = keeper_of_list(options);
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    if (arguments.group) find_group(list, *arguments.group, keeper);
    outcome.openings = find_openings(options, list, outcome.read, keeper, now);
    outcome.counts = put_imported(list, outcome.read, arguments.replace);
    if (arguments.replace) outcome.removals = find_removals(list, outcome.counts.weakenedGroups, keeper, now);
    outcome.blockings = find_blockings(list, outcome.counts.extendedGroups, keeper, now);
    sites = list.size();
    // The record is written before the list. If the process is killed in between, the record describes an import that
    // is not on the list, and take_back() then finds nothing to do.
    if (outcome.counts.hasChanges()) replace_list_text(record_path(options), outcome.counts.record);
    return outcome.counts.hasChanges();
  });
  for (const std::string& group : outcome.counts.unchangedGroups)
    print_error("settings not imported: " + in_quotes(group) +
                ": the group has sites already, so it keeps its settings: to change them: orvanectl group");
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  outcome.effect = wait_for_keeper(options, version, sites);
  const std::string prefix = report_effect(outcome.effect);
  options.json ? print_outcome_json(outcome) : print_outcome(outcome, prefix, now);
  return kDone;
}

int undo(const CommonOptions& options) {
  UndoCounts counts;
  std::vector<HeldBack> removals;
  size_t sites = 0;
  const Moment now = now_in_seconds();
  const auto keeper = keeper_of_list(options);
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    const std::string text = read_list_text(record_path(options));
    if (text.empty())
      throw InputError("nothing to undo: no import is recorded since the last undo: to remove the names of a file: " +
                       std::string("orvanectl unblock --from FILE"));
    const ImportRecord record = read_import_record(text);
    std::set<std::string> names;
    for (const Group& group : list.groups()) names.insert(group.name);
    removals = find_removals(list, names, keeper, now);  // now, because the next line may remove groups
    counts = take_back(list, record);
    for (const std::string& group : counts.weakenedGroups) refuse_if_locked(options, group, "undo the import");
    std::erase_if(removals, [&](const HeldBack& each) { return !counts.weakenedGroups.contains(each.group); });
    sites = list.size();
    replace_list_text(record_path(options), "");
    return counts.removed + counts.restored + counts.groups > 0;
  });
  const Effect effect = wait_for_keeper(options, version, sites);
  const std::string prefix = report_effect(effect);
  if (options.json) {
    nlohmann::json result{{"removed", counts.removed},
                          {"restored", counts.restored},
                          {"groups", counts.groups},
                          {"changedSince", counts.changedSince}};
    add_effect(result, effect.isInForce, removals);
    print_json(result);
  } else {
    std::printf("%s%s removed, %zu restored, %zu left alone because you changed them since the import\n",
                prefix.c_str(), counted(counts.removed, "site", "sites").c_str(), counts.restored, counts.changedSince);
    if (counts.groups > 0)
      std::printf("%s%s removed or restored\n", prefix.c_str(), counted(counts.groups, "group", "groups").c_str());
    print_removals(removals, now);
  }
  return kDone;
}

int run(const CommonOptions& options, const Arguments& arguments) {
  if (arguments.undo != arguments.file.empty())
    throw InputError(std::string("bad command line: import: give ") + (arguments.undo ? "only one of these: " : "") +
                     "a file, or --undo");
  return arguments.undo ? undo(options) : import(options, arguments);
}

}  // namespace

void declare_import_command(CommandSet& commands) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = commands.declare(commands.app, kListGroup, "import", "Add the names of a file to the list",
                                       [&options = commands.options, arguments] { return run(options, *arguments); });
  command
      ->add_option("FILE", arguments->file,
                   "A file of names, hosts(5) lines or ||name^ rules; \"-\" for standard input")
      ->type_name("");
  CLI::Option* subdomains =
      command->add_flag("--subdomains", arguments->subdomains,
                        "Block all sites with their subdomains (the default except for hosts(5) lines)");
  command->add_flag("--exact", arguments->exactNames, "Block the exact names only (the default for hosts(5) lines)")
      ->excludes(subdomains);
  command->add_flag("--replace", arguments->replace, "Remove all other sites of the groups that the file has");
  command->add_option("--group", arguments->group, "The group of all names, instead of the groups that the file has")
      ->type_name("GROUP");
  CLI::Option* undo = command->add_flag("--undo", arguments->undo, "Take the last import back");
  for (const char* option : {"--subdomains", "--exact", "--replace", "--group"})
    undo->excludes(command->get_option(option));
}

}  // namespace orvane

#include "companion/commands/GroupCommands.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/commands/EndTime.h"
#include "companion/commands/GroupState.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListGuard.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

constexpr std::string_view kAlways = "always";  // in place of a schedule
constexpr std::string_view kOff = "off";        // in place of a delay

// How far the end of a lock, as the keeper publishes it, may be from the requested end: the keeper computes the end
// from two clocks, in whole seconds.
constexpr std::chrono::seconds kClockTolerance(2);

struct Arguments {
  std::string group{kDefaultGroupName};
  std::vector<std::string> spans;
  std::string delay;
  EndTime end;
};

using GroupCommand = int (*)(const CommonOptions&, const Arguments&);

// Changes the list. Returns what has changed, in words; empty if nothing has.
using Edit = std::function<std::string(BlockList& list)>;
using GroupEdit = std::function<std::string(BlockList& list, GroupIndex group)>;

int change_list(const CommonOptions& options, const Arguments& arguments, const Edit& edit) {
  std::string outcome;
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    outcome = edit(list);
    sites = list.size();
    return !outcome.empty();
  });
  if (!options.json) std::printf("%s: %s\n", arguments.group.c_str(), outcome.empty() ? "unchanged" : outcome.c_str());
  std::fflush(stdout);
  const std::optional<bool> inForce = wait_for_keeper(options, version, sites);
  if (options.json)
    print_json({{"group", arguments.group}, {"changed", !outcome.empty()}, {"inForce", json_or_null(inForce)}});
  return kDone;
}

int change_group(const CommonOptions& options, const Arguments& arguments, const GroupEdit& edit) {
  return change_list(options, arguments,
                     [&](BlockList& list) { return edit(list, find_group(list, arguments.group)); });
}

int add(const CommonOptions& options, const Arguments& arguments) {
  if (const std::string fault = group_name_fault(arguments.group); !fault.empty())
    throw InputError("not a group's name: " + in_quotes(arguments.group) + ": " + fault);
  return change_list(options, arguments, [&](BlockList& list) {
    if (list.findGroup(arguments.group)) return "";
    if (list.groups().size() >= BlockList::kMostGroups)
      throw InputError("too many groups: remove some: orvanectl group remove");
    list.addGroup(arguments.group);
    return "added, without sites";
  });
}

int remove(const CommonOptions& options, const Arguments& arguments) {
  if (arguments.group == kDefaultGroupName)
    throw InputError("cannot remove the default group: remove its sites: orvanectl unblock");
  refuse_if_locked(options, arguments.group, "remove the group");
  return change_group(options, arguments, [](BlockList& list, GroupIndex group) {
    std::string outcome = "removed, with its sites" + delay_note(list.groups()[group]);
    list.removeGroup(group);
    return outcome;
  });
}

// ": in force until 17:00"
std::string force_note(const Group& group) {
  const Moment now = now_in_seconds();
  return ": " + state_text(group, {group.name, group.isInForce(now), group.nextChange(now), {}, 0}, now);
}

int enable(const CommonOptions& options, const Arguments& arguments) {
  return change_group(options, arguments, [](BlockList& list, GroupIndex group) {
    if (list.groups()[group].isEnabled) return std::string();
    list.setSetting(group, kEnabledKey, {});
    return "enabled" + force_note(list.groups()[group]);
  });
}

int disable(const CommonOptions& options, const Arguments& arguments) {
  refuse_if_locked(options, arguments.group, "disable the group");
  return change_group(options, arguments, [](BlockList& list, GroupIndex group) {
    if (!list.groups()[group].isEnabled) return std::string();
    list.setSetting(group, kEnabledKey, {"no"});
    return "disabled" + delay_note(list.groups()[group]);
  });
}

int schedule(const CommonOptions& options, const Arguments& arguments) {
  Schedule wanted;
  if (arguments.spans != std::vector<std::string>{std::string(kAlways)}) {
    for (const std::string& span : arguments.spans) {
      std::string fault;
      if (!wanted.add(span, fault)) throw InputError("not a schedule: " + in_quotes(span) + ": " + fault);
    }
  }
  refuse_if_locked(options, arguments.group, "change the schedule");
  return change_group(options, arguments, [&](BlockList& list, GroupIndex group) {
    if (list.groups()[group].schedule == wanted) return std::string();
    list.setSetting(group, kScheduleKey, wanted.texts());
    const Group& changed = list.groups()[group];
    if (wanted.isEmpty()) return "without a schedule" + force_note(changed);
    return "has a new schedule" + (changed.delay.count() > 0 ? delay_note(changed) : force_note(changed));
  });
}

int delay(const CommonOptions& options, const Arguments& arguments) {
  const auto wanted = arguments.delay == kOff ? std::chrono::seconds(0) : read_delay(arguments.delay);
  return change_group(options, arguments, [&](BlockList& list, GroupIndex group) {
    const Group before = list.groups()[group];
    if (before.delay == wanted) return std::string();
    if (wanted < before.delay) refuse_if_locked(options, arguments.group, "shorten the delay");
    list.setSetting(group, kDelayKey,
                    wanted.count() == 0 ? std::vector<std::string>{} : std::vector{delay_text(wanted)});
    std::string outcome =
        wanted.count() == 0 ? "no delay" : "a removal or suspension has an effect after " + duration_text(wanted);
    return wanted < before.delay ? outcome + delay_note(before) : outcome;
  });
}

nlohmann::json group_json(const Group& group, const KeeperState::GroupState& state, size_t sites) {
  return {{"name", group.name},
          {"enabled", group.isEnabled},
          {"inForce", state.isInForce},
          {"nextChange", json_or_null(state.nextChange)},
          {"schedule", group.schedule.texts()},
          {"delay", group.delay.count()},
          {"lockedUntil", json_or_null(state.lockedUntil)},
          {"pendingChanges", state.pendingChanges},
          {"sites", sites}};
}

void print_group(const Group& group, const KeeperState::GroupState& state, size_t sites, Moment now) {
  std::printf("%s: %s, %s%s\n", group.name.c_str(), counted(sites, "site", "sites").c_str(),
              coloured(state_text(group, state, now), state.isInForce ? Colour::Good : Colour::Warning).c_str(),
              guard_text(state, now).c_str());
  for (const std::string& span : group.schedule.texts()) std::printf("  schedule  %s\n", span.c_str());
  if (group.delay.count() > 0) std::printf("  delay     %s\n", duration_text(group.delay).c_str());
}

// Prints all groups, or those that `isWanted` selects.
int print_groups(const CommonOptions& options, const std::function<bool(const KeeperState::GroupState&)>& isWanted) {
  const BlockList list = read_list(options.listPath).list;
  const Moment now = now_in_seconds();
  const auto states = states_of_groups(list, keeper_of_list(options), now);
  const std::vector<size_t> sites = list.sitesOfGroups();
  nlohmann::json groups = nlohmann::json::array();
  for (size_t i = 0; i < states.size(); ++i) {
    if (!isWanted(states[i])) continue;
    const Group& group = list.groups()[i];
    options.json ? groups.push_back(group_json(group, states[i], sites[i]))
                 : print_group(group, states[i], sites[i], now);
  }
  if (options.json) print_json(groups);
  return kDone;
}

int list(const CommonOptions& options, const Arguments&) {
  return print_groups(options, [](const auto&) { return true; });
}

int show(const CommonOptions& options, const Arguments& arguments) {
  find_group(read_list(options.listPath).list, arguments.group);
  return print_groups(options, [&](const auto& state) { return state.name == arguments.group; });
}

// Prints the locked groups, even those that the list's file no longer has.
int show_locks(const CommonOptions& options) {
  const auto keeper = read_keeper_state(options.keeperStatePath);
  if (!keeper || !keeps_list(*keeper, options))
    throw FileError("cannot show locks: no keeper of this list runs: sudo systemctl start orvane-keeper");
  nlohmann::json locks = nlohmann::json::array();
  for (const auto& state : keeper->groups) {
    if (!state.lockedUntil) continue;
    locks.push_back({{"group", state.name},
                     {"lockedUntil", time_text(*state.lockedUntil)},
                     {"pendingChanges", state.pendingChanges}});
    if (!options.json)
      std::printf("%s: %s\n", state.name.c_str(), guard_text(state, now_in_seconds()).substr(2).c_str());
  }
  if (options.json) print_json(locks);
  if (!options.json && locks.empty()) std::puts("no group is locked");
  return kDone;
}

int lock(const CommonOptions& options, const Arguments& arguments) {
  if (!arguments.end.isGiven()) return show_locks(options);
  const Moment now = now_in_seconds();
  const Moment until = read_end_time(arguments.end, options, now);
  if (until - now > ListGuard::kLongestLock) throw InputError("too long a lock: give at most a year");
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    list.setSetting(find_group(list, arguments.group), kLockUntilKey, {time_text(until)});
    sites = list.size();
    return true;
  });
  wait_for_keeper(options, version, sites);
  const auto end = lock_end(keeper_of_list(options), arguments.group);
  if (!end) {
    print_error("saved, but not locked: the keeper locks the group when it reads the list: see orvanectl status");
    return kFailed;
  }
  if (options.json) {
    print_json({{"group", arguments.group}, {"lockedUntil", time_text(*end)}});
  } else {
    const char* already = *end > until + kClockTolerance ? "already " : "";
    std::printf("%s: %slocked %s\n", arguments.group.c_str(), already, suspension_text(*end, now).c_str());
  }
  return kDone;
}

}  // namespace

void declare_group_commands(CommandSet& commands) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* groups = commands.app.add_subcommand("group", "Groups of sites, with schedules and delays")
                         ->fallthrough()
                         ->group(kListGroup)
                         ->require_subcommand(1);
  const auto run = [&options = commands.options, arguments](GroupCommand command) {
    return [&options, arguments, command] { return command(options, *arguments); };
  };
  const auto declare = [&](const char* name, const char* description, GroupCommand command) {
    CLI::App* declared = commands.declare(*groups, "Commands", name, description, run(command));
    if (command != list) declared->add_option("GROUP", arguments->group, "A group's name")->required()->type_name("");
    return declared;
  };
  declare("add", "Add a group", add);
  declare("remove", "Remove a group with its sites", remove);
  declare("list", "Print the groups and whether they are in force", list);
  declare("show", "Print one group", show);
  declare("enable", "Put a group in force, if it has a schedule, at its times", enable);
  declare("disable", "Put a group out of force", disable);
  declare("schedule", "Set the times at which a group is in force", schedule)
      ->add_option("SPAN", arguments->spans, "As in 'Mon..Fri 09:00-17:00' or 'Sat,Sun 22:00-02:00'; or \"always\"")
      ->required()
      ->type_name("");
  declare("delay", "Set how long it takes until a removal or suspension has an effect", delay)
      ->add_option("TIME", arguments->delay, "As in 15m or 2h; or \"off\"")
      ->required()
      ->type_name("");

  CLI::App* lockCommand =
      commands.declare(commands.app, kListGroup, "lock",
                       "Let nothing be removed from a group for a while; without options, show locks", run(lock));
  lockCommand->add_option("--group", arguments->group, "The group, instead of the default group")->type_name("GROUP");
  arguments->end.declare(*lockCommand);
  lockCommand->footer("Nobody can end a lock, except root, who can stop the keeper: see orvanectl(1).");
}

}  // namespace orvane

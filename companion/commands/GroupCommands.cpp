#include "companion/commands/GroupCommands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/commandline/GroupState.h"
#include "companion/commands/EndTime.h"
#include "companion/commands/WaitForKeeper.h"
#include "companion/list/ListFile.h"
#include "companion/list/ListGuard.h"
#include "companion/subscriptions/Subscription.h"
#include "companion/text/ExitCodes.h"
#include "companion/text/Hostname.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

constexpr std::string_view kAlways = "always";  // in place of a schedule
constexpr std::string_view kOff = "off";        // in place of a delay

// The keeper computes the end of a lock from two clocks, in whole seconds. So the end that it publishes may differ from
// the requested end by this much.
constexpr std::chrono::seconds kClockTolerance(2);

struct Arguments {
  std::string group{kDefaultGroupName};
  std::vector<std::string> spans;
  std::string delay;
  std::optional<std::string> lockGroup;
  EndTime end;
};

using GroupCommand = int (*)(const CommonOptions&, const Arguments&);

struct Outcome {
  std::string text;  // what has changed; empty if nothing has
  MaybeHeldBack heldBack{};
  std::string note{};  // if nothing has changed
};

// Changes the list.
using Edit = std::function<Outcome(BlockList& list)>;
// Changes the settings of a group. `state`: the group's state before.
using GroupEdit = std::function<Outcome(BlockList& list, GroupIndex group, const KeeperState::GroupState& state)>;

int change_list(const CommonOptions& options, const Arguments& arguments, const Edit& edit) {
  Outcome outcome;
  size_t sites = 0;
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    outcome = edit(list);
    sites = list.size();
    return !outcome.text.empty();
  });
  const Effect effect = wait_for_keeper(options, version, sites);
  const std::string prefix = report_effect(effect);
  if (!options.json) {
    std::printf("%s%s: %s\n", prefix.c_str(), arguments.group.c_str(),
                outcome.text.empty() ? ("unchanged" + outcome.note).c_str() : outcome.text.c_str());
  } else {
    nlohmann::json result{{"group", arguments.group}, {"changed", !outcome.text.empty()}};
    std::vector<HeldBack> heldBack;
    add_unique(heldBack, outcome.heldBack);
    add_effect(result, effect.isInForce, heldBack);
    print_json(result);
  }
  return kDone;
}

// What holds back the settings `wanted`, if they make the group block less than the settings `before` in the file.
MaybeHeldBack settings_held_back(const Group& wanted, Group before, const KeeperState::GroupState& state, Moment now) {
  const bool beginsDelay = blocks_less(wanted, before);
  // A pending change of the delay holds back only a command that changes the delay again, or that begins it anew.
  if (beginsDelay || wanted.delay != before.delay) before.delay = std::max(before.delay, state.delay);
  if (!blocks_less(wanted, before)) return std::nullopt;
  auto heldBack = removal_held_back(before, state, now);
  // The delay of a pending change goes on if the group then blocks as much as before or more.
  if (heldBack && state.settingsUntil && !beginsDelay) heldBack->until = state.settingsUntil;
  return heldBack;
}

int change_group(const CommonOptions& options, const Arguments& arguments, const GroupEdit& edit) {
  const Moment now = now_in_seconds();
  const auto keeper = keeper_of_list(options);
  return change_list(options, arguments, [&](BlockList& list) {
    const GroupIndex group = find_group(list, arguments.group, keeper);
    const auto state = states_of_groups(list, keeper, now)[group];
    Outcome outcome = edit(list, group, state);
    if (outcome.text.empty()) {
      outcome.heldBack = earlier_change_held_back(state);
      if (outcome.heldBack) outcome.note = earlier_change_text(*outcome.heldBack, now);
    }
    return outcome;
  });
}

int add(const CommonOptions& options, const Arguments& arguments) {
  if (const std::string fault = group_name_fault(arguments.group); !fault.empty())
    throw InputError("not a group's name: " + in_quotes(arguments.group) + ": " + fault);
  return change_list(options, arguments, [&](BlockList& list) {
    if (list.findGroup(arguments.group)) return Outcome{"", {}, ": the group exists already"};
    if (list.groups().size() >= BlockList::kMostGroups)
      throw InputError("too many groups: remove some: orvanectl group remove");
    list.addGroup(arguments.group);
    return Outcome{"added, without sites"};
  });
}

// What removing a group does to the subscriptions in it. Empty if there are none.
std::string effect_on_subscriptions(const CommonOptions& options, const std::string& group) {
  const std::string path = path_beside_list(options, kSubscriptionsName);
  std::string names;
  for (const Subscription& each : read_subscriptions(read_list_text(path)).subscriptions) {
    if (each.group == group) names += (names.empty() ? "" : ", ") + each.name;
  }
  return names.empty() ? "" : "; without the group, these subscriptions are always in force: " + names;
}

int remove(const CommonOptions& options, const Arguments& arguments) {
  if (arguments.group == kDefaultGroupName)
    throw InputError("cannot remove the default group: remove its sites: orvanectl unblock");
  refuse_if_locked(options, arguments.group, "remove the group");
  const std::string subscriptions = effect_on_subscriptions(options, arguments.group);
  return change_group(options, arguments, [&](BlockList& list, GroupIndex group, const auto& state) {
    const Moment now = now_in_seconds();
    const Group before = list.groups()[group];
    Group gone;
    gone.name = before.name;
    gone.isEnabled = false;
    auto heldBack = settings_held_back(gone, before, state, now);
    if (!heldBack) heldBack = removal_held_back(before, state, now);
    list.removeGroup(group);
    return Outcome{"removed, with its sites" + held_back_text(heldBack, now) + subscriptions, heldBack};
  });
}

// Changes one setting. `done`: what the command has done, in words.
Outcome change_setting(BlockList& list, GroupIndex group, const KeeperState::GroupState& state, std::string_view key,
                       const std::vector<std::string>& values, std::string done) {
  const Moment now = now_in_seconds();
  const Group before = list.groups()[group];
  list.setSetting(group, key, values);
  const Group& wanted = list.groups()[group];
  if (wanted == before) return {};
  const auto removal = settings_held_back(wanted, before, state, now);
  if (key == kDelayKey && removal) {
    done += "; the delay of " + duration_text(std::max(before.delay, state.delay)) + " counts " +
            suspension_text(*removal->until, now);
    return {std::move(done), removal};
  }
  if (removal || key == kDelayKey) return {done + held_back_text(removal, now), removal};
  KeeperState::GroupState next{wanted.name, wanted.isInForce(now), wanted.nextChange(now), {}, 0};
  const bool isDisabling = key == kEnabledKey && !wanted.isEnabled;
  const MaybeHeldBack blocking = isDisabling ? std::nullopt : blocking_held_back(wanted, next);
  done += wanted.isEnabled ? ": " + state_text(wanted, next, now) : held_back_text(blocking, now);
  return {std::move(done), blocking};
}

int enable(const CommonOptions& options, const Arguments& arguments) {
  return change_group(options, arguments, [](BlockList& list, GroupIndex group, const auto& state) {
    return change_setting(list, group, state, kEnabledKey, {}, "enabled");
  });
}

int disable(const CommonOptions& options, const Arguments& arguments) {
  refuse_if_locked(options, arguments.group, "disable the group");
  return change_group(options, arguments, [](BlockList& list, GroupIndex group, const auto& state) {
    return change_setting(list, group, state, kEnabledKey, {"no"}, "disabled");
  });
}

// A shell splits "Mon..Fri 09:00-17:00" without quotes into two spans: Monday to Friday all day, and 09:00 to 17:00 on
// every day. schedule() refuses these spans, because the user may mean the times on these days.
bool has_times(const std::string& span) { return span.find(':') != std::string::npos; }
bool has_days(const std::string& span) {
  return std::any_of(span.begin(), span.end(), [](unsigned char c) { return std::isalpha(c) != 0; });
}

int schedule(const CommonOptions& options, const Arguments& arguments) {
  Schedule wanted;
  const std::vector<std::string>& spans = arguments.spans;
  if (spans != std::vector<std::string>{std::string(kAlways)}) {
    for (size_t i = 0; i < spans.size(); ++i) {
      std::string fault;
      if (!wanted.add(spans[i], fault)) throw InputError("not a schedule: " + in_quotes(spans[i]) + ": " + fault);
      if (i > 0 && !has_times(spans[i - 1]) && !has_days(spans[i]))
        throw InputError("several meanings: " + in_quotes(spans[i - 1]) + " " + in_quotes(spans[i]) +
                         ": for these times on these days, write '" + spans[i - 1] + " " + spans[i] +
                         "'; otherwise give the times first");
    }
  }
  refuse_if_locked(options, arguments.group, "change the schedule");
  return change_group(options, arguments, [&](BlockList& list, GroupIndex group, const auto& state) {
    return change_setting(list, group, state, kScheduleKey, wanted.texts(),
                          wanted.isEmpty() ? "without a schedule" : "has a new schedule");
  });
}

std::chrono::seconds delay_in(const std::string& text) {
  if (text == kOff) return std::chrono::seconds(0);
  try {
    return read_delay(text);
  } catch (const InputError& error) {
    throw InputError(std::string(error.what()) + "; for no delay, write off");
  }
}

int delay(const CommonOptions& options, const Arguments& arguments) {
  const std::chrono::seconds wanted = delay_in(arguments.delay);
  return change_group(options, arguments, [&](BlockList& list, GroupIndex group, const auto& state) {
    if (wanted < std::max(list.groups()[group].delay, state.delay))
      refuse_if_locked(options, arguments.group, "shorten the delay");
    using Values = std::vector<std::string>;
    return wanted.count() == 0 ? change_setting(list, group, state, kDelayKey, {}, "no delay")
                               : change_setting(list, group, state, kDelayKey, Values{delay_text(wanted)},
                                                "a removal or suspension has an effect after " + duration_text(wanted));
  });
}

// A group as the commands print it.
struct ShownGroup {
  Group group;  // as in the list's file or, if the file no longer has it, as it is in force
  KeeperState::GroupState state;
  size_t sites = 0;
  bool isInFile = true;
  std::vector<KeeperState::PendingSite> pending{};  // only those of this group
};

// The groups of the list's file, and those that the keeper still guards although the file no longer has them.
std::vector<ShownGroup> shown_groups(const CommonOptions& options, const BlockList& list, Moment now) {
  const auto keeper = keeper_of_shown_list(options);
  std::vector<ShownGroup> shown;
  const auto add = [&](const BlockList& from, bool isInFile) {
    const auto states = states_of_groups(from, keeper, now);
    const std::vector<size_t> sites = from.sitesOfGroups();
    for (size_t i = 0; i < states.size(); ++i) {
      if (!isInFile && list.findGroup(states[i].name)) continue;
      shown.push_back({from.groups()[i], states[i], sites[i], isInFile});
      if (!keeper) continue;
      std::copy_if(keeper->pending.begin(), keeper->pending.end(), std::back_inserter(shown.back().pending),
                   [&](const auto& site) { return site.group == states[i].name; });
    }
  };
  add(list, true);
  if (const auto inForce = list_in_force(options, keeper)) add(*inForce, false);
  return shown;
}

nlohmann::json group_json(const ShownGroup& shown) {
  const auto& [group, state, sites, isInFile, pending] = shown;
  nlohmann::json changes = nlohmann::json::array();
  for (const auto& site : pending) changes.push_back({{"host", site.host}, {"until", time_text(site.until)}});
  return {{"name", group.name},
          {"inFile", isInFile},
          {"enabled", group.isEnabled},
          {"inForce", state.isInForce},
          {"nextChange", json_or_null(state.nextChange)},
          {"schedule", group.schedule.texts()},
          {"delay", group.delay.count()},
          {"delayInForce", state.delay.count()},
          {"lockedUntil", json_or_null(state.lockedUntil)},
          {"pendingChanges", state.pendingChanges},
          {"pending", std::move(changes)},
          {"settingsUntil", json_or_null(state.settingsUntil)},
          {"unguardedSites", state.unguardedSites},
          {"sites", sites}};
}

void print_group(const ShownGroup& shown, bool withPending, Moment now) {
  const auto& [group, state, sites, isInFile, pending] = shown;
  std::printf("%s: %s, %s%s%s\n", group.name.c_str(), counted(sites, "site", "sites").c_str(),
              coloured(state_text(group, state, now), state.isInForce ? Colour::Good : Colour::Warning).c_str(),
              guard_text(state, now).c_str(), isInFile ? "" : kNotInFile);
  for (const std::string& span : group.schedule.texts()) std::printf("  schedule  %s\n", span.c_str());
  if (group.delay.count() > 0) std::printf("  delay     %s\n", duration_text(group.delay).c_str());
  if (state.settingsUntil)
    std::printf("  The settings in force%s stay %s.\n",
                state.delay.count() == 0 ? "" : (", with a delay of " + duration_text(state.delay) + ",").c_str(),
                suspension_text(*state.settingsUntil, now).c_str());
  if (!withPending) return;
  for (const auto& site : pending)
    std::printf("  The change of %s has no effect %s.\n", shown_hostname(site.host).c_str(),
                suspension_text(site.until, now).c_str());
}

// Prints the group, or without a name, all groups.
int print_groups(const CommonOptions& options, const std::optional<std::string>& name) {
  const BlockList list = read_list(options.listPath).list;
  const Moment now = now_in_seconds();
  nlohmann::json groups = nlohmann::json::array();
  bool isFound = false;
  for (const ShownGroup& shown : shown_groups(options, list, now)) {
    if (name && shown.group.name != *name) continue;
    isFound = true;
    options.json ? groups.push_back(group_json(shown)) : print_group(shown, name.has_value(), now);
  }
  if (!isFound) find_group(list, *name, {});  // throws
  if (options.json) print_json(groups);
  return kDone;
}

int list(const CommonOptions& options, const Arguments&) { return print_groups(options, std::nullopt); }

int show(const CommonOptions& options, const Arguments& arguments) { return print_groups(options, arguments.group); }

// Prints the lock of the group, or without a name, all locks, even those of groups that the list's file no longer has.
int show_locks(const CommonOptions& options, const std::optional<std::string>& name) {
  const auto keeper = keeper_of_list(options, Unreadable::Report);
  if (name && !lock_end(keeper, *name))
    find_group(read_list(options.listPath).list, *name, keeper);  // throws if it is unknown
  if (!keeper) throw FileError("cannot show locks: " + no_keeper_text(options));
  nlohmann::json locks = nlohmann::json::array();
  for (const auto& state : keeper->groups) {
    if (!state.lockedUntil || (name && state.name != *name)) continue;
    locks.push_back({{"group", state.name},
                     {"lockedUntil", time_text(*state.lockedUntil)},
                     {"pendingChanges", state.pendingChanges},
                     {"unguardedSites", state.unguardedSites}});
    if (!options.json)
      std::printf("%s: %s\n", state.name.c_str(), guard_text(state, now_in_seconds()).substr(2).c_str());
  }
  if (options.json) print_json(locks);
  if (!options.json && locks.empty()) std::puts(name ? (*name + ": not locked").c_str() : "no group is locked");
  return kDone;
}

int lock(const CommonOptions& options, const Arguments& arguments) {
  if (!arguments.end.isGiven()) return show_locks(options, arguments.lockGroup);
  const std::string group = arguments.lockGroup.value_or(std::string(kDefaultGroupName));
  const Moment now = now_in_seconds();
  const Moment until = read_end_time(arguments.end, options, now);
  if (until - now > ListGuard::kLongestLock)
    throw InputError(
        "too long a lock: " + in_quotes(arguments.end.duration.value_or(arguments.end.until.value_or(""))) +
        ": give at most 366 days");
  size_t sites = 0, suspended = 0;
  Group locked;
  const auto keeper = keeper_of_list(options);
  const ListVersion version = edit_list(options.listPath, [&](BlockList& list) {
    const GroupIndex index = find_group(list, group, keeper);
    locked = list.groups()[index];
    list.setSetting(index, kLockUntilKey, {time_text(until)});
    sites = list.size();
    suspended = 0;
    list.forEachSite(
        [&](const ListedSite& site) { suspended += site.group == index && site.isSuspended(now) ? 1 : 0; });
    return true;
  });
  Effect effect = wait_for_keeper(options, version, sites);
  const auto state = state_of_group(keeper_of_list(options), group);
  if (!state || !state->lockedUntil) {
    if (effect.reason.empty())
      effect.reason = effect.isInForce ? "too many groups have a lock or a delay: see journalctl -u orvane-keeper"
                                       : no_keeper_text(options);
    print_error("saved, but not locked, because " + effect.reason);
    return kFailed;
  }
  report_effect(effect);
  if (options.json) {
    nlohmann::json result{{"group", group},
                          {"lockedUntil", time_text(*state->lockedUntil)},
                          {"unguardedSites", state->unguardedSites},
                          {"suspensionsWithoutEffect", suspended}};
    add_effect(result, effect.isInForce, {});
    print_json(result);
  } else {
    const char* already = *state->lockedUntil > until + kClockTolerance ? "already " : "";
    // The keeper has accepted the lock, so the lock itself is in force.
    const char* blocked = !effect.isInForce    ? "; it is unknown whether its sites are blocked yet"
                          : !*effect.isInForce ? "; but its sites are not blocked yet"
                                               : "";
    const std::string off = held_back_text(blocking_held_back(locked, *state), now);
    std::string ineffective;
    if (suspended > 0)
      ineffective = "; until then, " + counted(suspended, "suspension has", "suspensions have") + " no effect";
    std::printf("%s: %slocked %s%s%s%s\n", group.c_str(), already, suspension_text(*state->lockedUntil, now).c_str(),
                unguarded_text(*state).c_str(), ineffective.c_str(), off.empty() ? blocked : off.c_str());
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
  declare("enable", "Put a group in force: always, or at the times of its schedule", enable);
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
                       "Forbid removals from a group for a while; without a time, show locks", run(lock));
  lockCommand->add_option("--group", arguments->lockGroup, "The group, instead of the default group")
      ->type_name("GROUP");
  arguments->end.declare(*lockCommand);
  lockCommand->footer("Nobody can end a lock, except root, who can stop the keeper: see orvanectl(1).");
}

}  // namespace orvane

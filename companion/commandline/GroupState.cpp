#include "companion/commandline/GroupState.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "companion/client/UnitState.h"
#include "companion/list/ListFile.h"
#include "companion/list/Places.h"
#include "companion/text/EditDistance.h"
#include "companion/text/Input.h"
#include "companion/text/Json.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

auto state_named(const std::vector<KeeperState::GroupState>& states, const std::string& group) {
  return std::find_if(states.begin(), states.end(), [&](const auto& each) { return each.name == group; });
}

}  // namespace

GroupIndex find_group(const BlockList& list, const std::string& name, const std::optional<KeeperState>& keeper) {
  if (const auto found = list.findGroup(name)) return *found;
  if (const auto state = state_of_group(keeper, name)) {
    const Moment now = now_in_seconds();
    Group gone;
    gone.name = name;
    const auto earlier = earlier_change_held_back(*state);
    if (const auto heldBack = earlier ? earlier : removal_held_back(gone, *state, now))
      throw InputError("no such group: " + in_quotes(name) + ": " + removal_text(*heldBack, now));
  }
  size_t nearest = std::max<size_t>(name.size() / 2, 2);  // only a group at a smaller distance is suggested
  constexpr size_t kMostShown = 10;
  std::string names, advice;
  for (const Group& group : list.groups()) {
    names += (names.empty() ? "" : ", ") + group.name;
    const size_t distance = edit_distance(name, group.name);
    if (distance < nearest) advice = "did you mean " + group.name + "? See orvanectl group list";
    nearest = std::min(nearest, distance);
  }
  if (advice.empty())
    advice = (list.groups().size() > kMostShown ? "see orvanectl group list" : "the list has these: " + names) +
             ": to add a group: orvanectl group add";
  throw InputError("no such group: " + in_quotes(name) + ": " + advice);
}

std::optional<KeeperState> keeper_of_list(const CommonOptions& options, Unreadable unreadable) {
  try {
    auto keeper = read_keeper_state(options.keeperStatePath);
    return keeper && keeps_list(*keeper, options) ? keeper : std::nullopt;
  } catch (const FileError&) {
    if (unreadable == Unreadable::Report) throw;
    return std::nullopt;
  }
}

std::optional<KeeperState> keeper_of_shown_list(const CommonOptions& options) {
  std::string reason;
  try {
    auto keeper = keeper_of_list(options, Unreadable::Report);
    if (keeper) return keeper;
    reason = no_keeper_text(options);
  } catch (const FileError& error) {
    reason = error.what();
  }
  print_error("cannot show locks and changes without effect yet: " + reason);
  return std::nullopt;
}

std::string no_keeper_text(const CommonOptions& options) {
  return options.listPath == places().list ? std::string("no keeper of this list runs: ") + kStartKeeper
                                           : "no keeper keeps this list: see orvanectl status";
}

bool keeps_list(const KeeperState& keeper, const CommonOptions& options) {
  std::error_code ignored;
  return keeper.listPath == options.listPath || std::filesystem::equivalent(keeper.listPath, options.listPath, ignored);
}

void refuse_other_list(const CommonOptions& options, const std::optional<KeeperState>& keeper) {
  if (keeper && options.listPath != places().list && !keeps_list(*keeper, options))
    throw InputError("no keeper keeps this list: " + in_quotes(options.listPath) + ": for the keeper's list, " +
                     in_quotes(keeper->listPath) + ", leave out --list");
}

std::optional<BlockList> list_in_force(const CommonOptions& options, const std::optional<KeeperState>& keeper) {
  if (!keeper || !keeper->isGuarded) return std::nullopt;
  return read_list(list_in_force_path(options.keeperStatePath)).list;
}

std::vector<KeeperState::GroupState> states_of_groups(const BlockList& list, const std::optional<KeeperState>& keeper,
                                                      Moment now) {
  std::vector<KeeperState::GroupState> states;
  for (const Group& group : list.groups()) {
    states.push_back({group.name, group.isInForce(now), group.nextChange(now), {}, 0, group.delay});
    if (!keeper) continue;
    const auto known = state_named(keeper->groups, group.name);
    if (known != keeper->groups.end()) states.back() = *known;
  }
  return states;
}

GroupStates in_force(const std::vector<KeeperState::GroupState>& states) {
  GroupStates result;
  for (const auto& state : states) result.isInForce.push_back(state.isInForce);
  return result;
}

std::optional<KeeperState::GroupState> state_of_group(const std::optional<KeeperState>& keeper,
                                                      const std::string& group) {
  if (!keeper) return std::nullopt;
  const auto state = state_named(keeper->groups, group);
  return state == keeper->groups.end() ? std::nullopt : std::optional(*state);
}

std::optional<Moment> lock_end(const std::optional<KeeperState>& keeper, const std::string& group) {
  const auto state = state_of_group(keeper, group);
  return state ? state->lockedUntil : std::nullopt;
}

void refuse_if_locked(const CommonOptions& options, const std::string& group, const std::string& what) {
  if (const auto end = lock_end(keeper_of_list(options), group))
    throw std::runtime_error("cannot " + what + ": the group " + in_quotes(group) + " is locked " +
                             suspension_text(*end, now_in_seconds()) + ": " + kEndLock);
}

std::string state_text(const Group& group, const KeeperState::GroupState& state, Moment now) {
  if (!group.isEnabled && !state.isInForce) return "disabled";
  const std::string text = state.isInForce ? "in force" : "not in force";
  return state.nextChange ? text + " until " + local_text(*state.nextChange, now) : text;
}

std::string guard_text(const KeeperState::GroupState& state, Moment now) {
  std::string text;
  if (state.lockedUntil)
    text += ", " + coloured("locked", Colour::Good) + " " + suspension_text(*state.lockedUntil, now);
  if (state.pendingChanges > 0)
    text += ", " + counted(state.pendingChanges, "change", "changes") + " without effect yet";
  return text + unguarded_text(state);
}

std::string unguarded_text(const KeeperState::GroupState& state) {
  if (state.unguardedSites == 0) return "";
  return ", but that does not cover " + counted(state.unguardedSites, "site", "sites") +
         " of the group: all groups together have room for about a million";
}

MaybeHeldBack blocking_held_back(const Group& group, const KeeperState::GroupState& state) {
  if (state.isInForce) return std::nullopt;
  if (!group.isEnabled) return HeldBack{HeldBack::By::Disabled, group.name};
  return HeldBack{HeldBack::By::Schedule, group.name, state.nextChange};
}

MaybeHeldBack removal_held_back(const Group& group, const KeeperState::GroupState& state, Moment now) {
  if (state.lockedUntil) return HeldBack{HeldBack::By::Lock, group.name, state.lockedUntil};
  // A lock or a delay that the file has counts even if the keeper has not read it yet, or if no keeper runs.
  if (group.lockUntil > now) return HeldBack{HeldBack::By::Lock, group.name, group.lockUntil};
  const std::chrono::seconds delay = std::max(group.delay, state.delay);
  if (delay.count() == 0) return std::nullopt;
  HeldBack heldBack{HeldBack::By::Delay, group.name, now + delay};
  // If the file has no delay any more, the keeper releases the group when the old delay is over.
  if (group.delay.count() == 0 && state.settingsUntil) heldBack.until = std::min(now + delay, *state.settingsUntil);
  return heldBack;
}

MaybeHeldBack earlier_change_held_back(const std::optional<KeeperState>& keeper, const std::string& group,
                                       std::string_view host) {
  if (!keeper) return std::nullopt;
  for (const KeeperState::PendingSite& site : keeper->pending) {
    if (site.group == group && site.host == host)
      return HeldBack{lock_end(keeper, group) ? HeldBack::By::Lock : HeldBack::By::Delay, group, site.until};
  }
  return std::nullopt;
}

MaybeHeldBack earlier_change_held_back(const KeeperState::GroupState& state) {
  if (!state.settingsUntil) return std::nullopt;
  return HeldBack{state.lockedUntil ? HeldBack::By::Lock : HeldBack::By::Delay, state.name, state.settingsUntil};
}

std::vector<MaybeHeldBack> exceptions_held_back(const BlockList& list, const std::vector<ListedSite>& exceptions,
                                                const std::optional<KeeperState>& keeper, Moment now) {
  std::vector<MaybeHeldBack> results(exceptions.size());
  const auto states = states_of_groups(list, keeper, now);
  std::vector<MaybeHeldBack> byGroup;
  for (size_t i = 0; i < states.size(); ++i) byGroup.push_back(removal_held_back(list.groups()[i], states[i], now));
  if (std::none_of(byGroup.begin(), byGroup.end(), [](const auto& each) { return each.has_value(); })) return results;
  std::vector<std::string_view> hosts;
  hosts.reserve(exceptions.size());
  for (const ListedSite& exception : exceptions) hosts.push_back(exception.host);
  const auto opened = groups_opened_by(list, hosts);
  for (size_t i = 0; i < exceptions.size(); ++i) {
    for (const GroupIndex group : opened.at(exceptions[i].host)) {
      // Of several groups, the one that holds the exception back longest counts.
      if (byGroup[group] && (!results[i] || results[i]->until < byGroup[group]->until)) results[i] = byGroup[group];
    }
  }
  return results;
}

std::string held_back_text(const MaybeHeldBack& heldBack, Moment now) {
  if (!heldBack) return "";
  const std::string until = heldBack->until ? local_text(*heldBack->until, now) : "";
  switch (heldBack->by) {
    case HeldBack::By::Lock:
      return "; has no effect until the lock of the group " + heldBack->group + " ends (" + until + ")";
    case HeldBack::By::Delay:
      return "; has an effect in " + duration_text(*heldBack->until - now);
    case HeldBack::By::Disabled:
      return "; but the group " + heldBack->group + " is disabled";
    case HeldBack::By::Schedule:
      break;
  }
  return "; but the group " + heldBack->group + " is not in force" + (until.empty() ? "" : " until " + until);
}

std::string earlier_change_text(const HeldBack& heldBack, Moment now) {
  return "; but an earlier change" + held_back_text(heldBack, now).substr(1);
}

std::string removal_text(const HeldBack& heldBack, Moment now) {
  return "its removal" + held_back_text(heldBack, now).substr(1);
}

nlohmann::json to_json(const HeldBack& heldBack) {
  const char* by = heldBack.by == HeldBack::By::Lock       ? "lock"
                   : heldBack.by == HeldBack::By::Delay    ? "delay"
                   : heldBack.by == HeldBack::By::Schedule ? "schedule"
                                                           : "disabled";
  return {{"by", by}, {"group", heldBack.group}, {"until", json_or_null(heldBack.until)}};
}

void add_effect(nlohmann::json& result, std::optional<bool> isSent, const std::vector<HeldBack>& heldBack) {
  result["inForce"] = isSent ? nlohmann::json(*isSent && heldBack.empty()) : nlohmann::json();
  result["heldBack"] = nlohmann::json::array();
  for (const HeldBack& each : heldBack) result["heldBack"].push_back(to_json(each));
}

void add_unique(std::vector<HeldBack>& all, const MaybeHeldBack& heldBack) {
  if (heldBack && std::find(all.begin(), all.end(), *heldBack) == all.end()) all.push_back(*heldBack);
}

}  // namespace orvane

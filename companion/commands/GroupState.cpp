#include "companion/commands/GroupState.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "companion/list/ListFile.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

auto state_named(const std::vector<KeeperState::GroupState>& states, const std::string& group) {
  return std::find_if(states.begin(), states.end(), [&](const auto& each) { return each.name == group; });
}

}  // namespace

GroupIndex find_group(const BlockList& list, const std::string& name) {
  if (const auto found = list.findGroup(name)) return *found;
  throw InputError("no such group: " + in_quotes(name) + ": see orvanectl group list, or add it: orvanectl group add");
}

std::optional<KeeperState> keeper_of_list(const CommonOptions& options) {
  try {
    auto keeper = read_keeper_state(options.keeperStatePath);
    return keeper && keeps_list(*keeper, options) ? keeper : std::nullopt;
  } catch (const FileError&) {
    return std::nullopt;
  }
}

bool keeps_list(const KeeperState& keeper, const CommonOptions& options) {
  std::error_code ignored;
  return keeper.listPath == options.listPath || std::filesystem::equivalent(keeper.listPath, options.listPath, ignored);
}

std::vector<KeeperState::GroupState> states_of_groups(const BlockList& list, const std::optional<KeeperState>& keeper,
                                                      Moment now) {
  std::vector<KeeperState::GroupState> states;
  for (const Group& group : list.groups()) {
    states.push_back({group.name, group.isInForce(now), group.nextChange(now), {}, 0});
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

std::optional<Moment> lock_end(const std::optional<KeeperState>& keeper, const std::string& group) {
  if (!keeper) return std::nullopt;
  const auto state = state_named(keeper->groups, group);
  return state == keeper->groups.end() ? std::nullopt : state->lockedUntil;
}

void refuse_if_locked(const CommonOptions& options, const std::string& group, const std::string& what) {
  if (const auto end = lock_end(keeper_of_list(options), group))
    throw std::runtime_error("cannot " + what + ": the group " + in_quotes(group) + " is locked " +
                             suspension_text(*end, now_in_seconds()) + ": wait, or ask root");
}

std::string state_text(const KeeperState::GroupState& state, Moment now) {
  const std::string text = state.isInForce ? "in force" : "not in force";
  return state.nextChange ? text + " until " + local_text(*state.nextChange, now) : text;
}

std::string state_text(const Group& group, const KeeperState::GroupState& state, Moment now) {
  return !group.isEnabled && !state.isInForce ? "disabled" : state_text(state, now);
}

std::string guard_text(const KeeperState::GroupState& state, Moment now) {
  std::string text;
  if (state.lockedUntil)
    text += ", " + coloured("locked", Colour::Good) + " " + suspension_text(*state.lockedUntil, now);
  if (state.pendingChanges > 0)
    text += ", " + counted(state.pendingChanges, "change", "changes") + " without effect yet";
  return text;
}

std::string delay_note(const Group& group) {
  return group.delay.count() == 0 ? "" : "; has an effect in " + duration_text(group.delay);
}

}  // namespace orvane

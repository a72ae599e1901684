#include "companion/commands/GroupState.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "companion/list/ListFile.h"
#include "companion/text/Input.h"
#include "companion/text/TimeText.h"

namespace orvane {
namespace {

nlohmann::json json_of(const std::optional<Moment>& moment) {
  return moment ? nlohmann::json(time_text(*moment)) : nlohmann::json();
}

}  // namespace

GroupIndex find_group(const BlockList& list, const std::string& name) {
  if (const auto found = list.findGroup(name)) return *found;
  throw InputError("no such group: " + in_quotes(name) + ": see orvanectl group list, or add it: orvanectl group add");
}

std::optional<KeeperState> keeper_of_list(const CommonOptions& options) {
  try {
    auto keeper = read_keeper_state(options.keeperStatePath);
    std::error_code ignored;
    const bool isSame = keeper && (keeper->listPath == options.listPath ||
                                   std::filesystem::equivalent(keeper->listPath, options.listPath, ignored));
    return isSame ? keeper : std::nullopt;
  } catch (const FileError&) {
    return std::nullopt;
  }
}

std::vector<KeeperState::GroupState> states_of_groups(const BlockList& list, const std::optional<KeeperState>& keeper,
                                                      Moment now) {
  std::vector<KeeperState::GroupState> states;
  for (const Group& group : list.groups()) {
    states.push_back({group.name, group.isInForce(now), group.nextChange(now), {}, 0});
    if (!keeper) continue;
    const auto known = std::find_if(keeper->groups.begin(), keeper->groups.end(),
                                    [&](const auto& each) { return each.name == group.name; });
    if (known != keeper->groups.end()) states.back() = *known;
  }
  return states;
}

GroupStates in_force(const std::vector<KeeperState::GroupState>& states) {
  GroupStates result;
  for (const auto& state : states) result.isInForce.push_back(state.isInForce);
  return result;
}

void refuse_if_locked(const CommonOptions& options, const std::string& group, const std::string& what) {
  const auto keeper = keeper_of_list(options);
  if (!keeper) return;
  for (const auto& state : keeper->groups) {
    if (state.name != group || !state.lockedUntil) continue;
    throw std::runtime_error("cannot " + what + ": the group " + in_quotes(group) + " is locked " +
                             suspension_text(*state.lockedUntil, now_in_seconds()) + ": wait, or ask root");
  }
}

std::string state_text(const Group& group, const KeeperState::GroupState& state, Moment now) {
  if (!group.isEnabled && !state.isInForce) return "disabled";
  const std::string text = state.isInForce ? "in force" : "not in force";
  return state.nextChange ? text + " until " + local_text(*state.nextChange, now) : text;
}

std::string delay_note(const Group& group) {
  return group.delay.count() == 0 ? "" : "; has an effect in " + duration_text(group.delay);
}

nlohmann::json group_json(const BlockList& list, GroupIndex index, const KeeperState::GroupState& state) {
  const Group& group = list.groups()[index];
  size_t sites = 0;
  list.forEachSite([&](const ListedSite& site) { sites += site.group == index ? 1 : 0; });
  return {{"name", group.name},
          {"enabled", group.isEnabled},
          {"inForce", state.isInForce},
          {"nextChange", json_of(state.nextChange)},
          {"schedule", group.schedule.texts()},
          {"delay", group.delay.count()},
          {"lockedUntil", json_of(state.lockedUntil)},
          {"pendingChanges", state.pendingChanges},
          {"sites", sites}};
}

}  // namespace orvane

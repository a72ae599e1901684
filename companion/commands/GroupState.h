#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "companion/commands/CommandSet.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/BlockList.h"

namespace orvane {

// The group with this name. Throws InputError if the list has none.
GroupIndex find_group(const BlockList& list, const std::string& name);

// The state of the keeper that keeps this list; nothing if there is none, or its state cannot be read.
std::optional<KeeperState> keeper_of_list(const CommonOptions& options);

// The states of the list's groups: those that the keeper has published, because the user may have another time zone and
// may not see locks. For other groups, and without a keeper, what the list says.
std::vector<KeeperState::GroupState> states_of_groups(const BlockList& list, const std::optional<KeeperState>& keeper,
                                                      Moment now);
GroupStates in_force(const std::vector<KeeperState::GroupState>& states);

// Throws an error if the keeper has locked the group. `what` is what cannot be done, as in "remove sites".
void refuse_if_locked(const CommonOptions& options, const std::string& group, const std::string& what);

// "in force until 17:00", "not in force until Mon 09:00" or "disabled".
std::string state_text(const Group& group, const KeeperState::GroupState& state, Moment now);

// Says when a change that makes the group block less has an effect: "; has an effect in 15 min". Empty without a delay.
std::string delay_note(const Group& group);

nlohmann::json group_json(const BlockList& list, GroupIndex group, const KeeperState::GroupState& state);

}  // namespace orvane

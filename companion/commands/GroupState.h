#pragma once

#include <optional>
#include <string>
#include <vector>

#include "companion/commands/CommandSet.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/BlockList.h"

namespace orvane {

// The group with this name. Throws InputError if the list has none.
GroupIndex find_group(const BlockList& list, const std::string& name);

// The state of the keeper, if it keeps the list at options.listPath. Nothing if no keeper keeps that list, or if the
// keeper's state cannot be read.
std::optional<KeeperState> keeper_of_list(const CommonOptions& options);

// The states of the list's groups. The states that the keeper has published come first, because orvanectl may run in
// another time zone than the keeper, and cannot see locks. For other groups, and without a keeper, the states come from
// the list.
std::vector<KeeperState::GroupState> states_of_groups(const BlockList& list, const std::optional<KeeperState>& keeper,
                                                      Moment now);
GroupStates in_force(const std::vector<KeeperState::GroupState>& states);

// Whether the keeper keeps the list at options.listPath.
bool keeps_list(const KeeperState& keeper, const CommonOptions& options);

// When the lock of the group ends; nothing if the keeper has not locked it.
std::optional<Moment> lock_end(const std::optional<KeeperState>& keeper, const std::string& group);

// Throws an error if the keeper has locked the group. `what`: the words for the refused change, as in "remove sites".
void refuse_if_locked(const CommonOptions& options, const std::string& group, const std::string& what);

// "in force until 17:00", "not in force until Mon 09:00" or, if the group is given, "disabled".
std::string state_text(const KeeperState::GroupState& state, Moment now);
std::string state_text(const Group& group, const KeeperState::GroupState& state, Moment now);

// The group's lock, and the number of changes of the file that have no effect yet: ", locked until 17:00 (1 h left), 2
// changes without effect yet".
std::string guard_text(const KeeperState::GroupState& state, Moment now);

// Says when a change that makes the group block less has an effect: "; has an effect in 15 min". Empty without a delay.
std::string delay_note(const Group& group);

}  // namespace orvane

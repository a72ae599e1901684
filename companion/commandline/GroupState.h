#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companion/commandline/CommandSet.h"
#include "companion/keeper/KeeperState.h"
#include "companion/list/BlockList.h"

namespace orvane {

// The group with this name. If the list has none, throws InputError, which says when the removal of the group has an
// effect, suggests a group with a similar name, or names the groups of the list. `keeper`: the keeper of the list.
GroupIndex find_group(const BlockList& list, const std::string& name, const std::optional<KeeperState>& keeper);

// The state of the keeper, if it keeps the list at options.listPath. Nothing if no keeper keeps that list. If the state
// cannot be read: nothing, or with Unreadable::Report, throws FileError.
enum class Unreadable { Ignore, Report };
std::optional<KeeperState> keeper_of_list(const CommonOptions& options, Unreadable unreadable = Unreadable::Ignore);

// The same, for commands that print the list or its groups. If there is no such state, prints an error which says why
// the command cannot show what only the keeper knows.
std::optional<KeeperState> keeper_of_shown_list(const CommonOptions& options);
// If keeper_of_list() has found no keeper: says so, and what to do. Starting the service helps only its own list.
std::string no_keeper_text(const CommonOptions& options);

// The list that is in force, if the keeper holds back changes of the list's file; otherwise nothing.
std::optional<BlockList> list_in_force(const CommonOptions& options, const std::optional<KeeperState>& keeper);

// The states of the list's groups. If the keeper has published a group's state, that state counts, because orvanectl
// may run in another time zone than the keeper, and cannot see locks. Otherwise the state comes from the list.
std::vector<KeeperState::GroupState> states_of_groups(const BlockList& list, const std::optional<KeeperState>& keeper,
                                                      Moment now);
GroupStates in_force(const std::vector<KeeperState::GroupState>& states);

// Whether the keeper keeps the list at options.listPath.
bool keeps_list(const KeeperState& keeper, const CommonOptions& options);
// For commands about the keeper's list: throws InputError if --list names another one.
void refuse_other_list(const CommonOptions& options, const std::optional<KeeperState>& keeper);

// The state of the group, as the keeper has published it.
std::optional<KeeperState::GroupState> state_of_group(const std::optional<KeeperState>& keeper,
                                                      const std::string& group);
// When the lock of the group ends; nothing if the keeper has not locked it.
std::optional<Moment> lock_end(const std::optional<KeeperState>& keeper, const std::string& group);

// Throws an error if the keeper has locked the group. `what`: the words for the refused change, as in "remove sites".
void refuse_if_locked(const CommonOptions& options, const std::string& group, const std::string& what);

// "in force until 17:00", "not in force until Mon 09:00" or "disabled".
std::string state_text(const Group& group, const KeeperState::GroupState& state, Moment now);

// The group's lock, and the number of changes of the file that have no effect yet: ", locked until 17:00 (1 h left), 2
// changes without effect yet". Includes unguarded_text().
std::string guard_text(const KeeperState::GroupState& state, Moment now);
// How many sites of the group its lock or delay does not cover. Empty if it covers all.
std::string unguarded_text(const KeeperState::GroupState& state);
// Follows guard_text() for a group that only the list in force has.
inline constexpr const char* kNotInFile = ", no longer in the list's file";

// Why a change of the list's file has no effect, or has none yet.
struct HeldBack {
  enum class By { Lock, Delay, Schedule, Disabled } by = By::Lock;
  std::string group;
  std::optional<Moment> until{};  // nothing if unknown, for example for a disabled group
  bool operator==(const HeldBack&) const = default;
};
using MaybeHeldBack = std::optional<HeldBack>;

// What holds back a change that makes the group block more. `group`: as in the list's file after the change.
MaybeHeldBack blocking_held_back(const Group& group, const KeeperState::GroupState& state);
// What holds back a change that makes the group block less. `group`: as in the list's file before the change.
MaybeHeldBack removal_held_back(const Group& group, const KeeperState::GroupState& state, Moment now);

// What holds back a change of a site, or of a group's settings, that the list's file has already. Nothing if no change
// is held back, or if the keeper holds back too many to publish this one.
MaybeHeldBack earlier_change_held_back(const std::optional<KeeperState>& keeper, const std::string& group,
                                       std::string_view host);
MaybeHeldBack earlier_change_held_back(const KeeperState::GroupState& state);

// For each of these new exceptions: the lock or delay that holds it back, of a group that has sites at, above or below
// its host. `list`: the list that is in force (list_in_force()); if there is none, the list's file before the change.
std::vector<MaybeHeldBack> exceptions_held_back(const BlockList& list, const std::vector<ListedSite>& exceptions,
                                                const std::optional<KeeperState>& keeper, Moment now);

// "; has an effect in 15 min", "; but the group work is disabled". Empty if nothing holds the change back.
std::string held_back_text(const MaybeHeldBack& heldBack, Moment now);
// "; but an earlier change has an effect in 15 min".
std::string earlier_change_text(const HeldBack& heldBack, Moment now);
// "its removal has an effect in 15 min".
std::string removal_text(const HeldBack& heldBack, Moment now);

// Gives the JSON object of a result the members "inForce" and "heldBack". The first is true only if the keeper has sent
// the change, and nothing holds a part of it back; null if it is not known what the keeper has sent.
void add_effect(nlohmann::json& result, std::optional<bool> isSent, const std::vector<HeldBack>& heldBack);
nlohmann::json to_json(const HeldBack& heldBack);
// Adds what holds a change back, unless it is there already.
void add_unique(std::vector<HeldBack>& all, const MaybeHeldBack& heldBack);

}  // namespace orvane

#include "companion/application/ListState.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "companion/application/Protection.h"
#include "companion/text/Input.h"
#include "companion/text/Output.h"

namespace orvane {
namespace {

ListState read(const nlohmann::json& status) {
  ListState state;
  state.isInForce = status.at("inForce");
  if (status.at("keeper").is_null()) return state;
  const auto& list = status.at("keeper").at("list");
  // orvanectl counts a list as in force that others have edited since. But on a Mac, the keeper of another user who is
  // logged in may have replaced all names.
  const auto& extension = status.at("keeper").at("extension");
  state.isEditedByOthers = state.isInForce && extension.at("changesOfOthers") != 0;
  state.isInForce = state.isInForce && !state.isEditedByOthers;
  state.suspendedNames = list.at("suspendedNames");
  // If many names are suspended, only some of them are in the output.
  state.endsTogether = list.at("suspended").size() == state.suspendedNames;
  bool isFirst = true;
  for (const auto& each : list.at("suspended")) {
    const Moment until = read_moment(each.at("until").get<std::string>());
    state.endsTogether = state.endsTogether && (isFirst || until == state.suspendedUntil);
    state.suspendedUntil = isFirst ? until : std::min(until, state.suspendedUntil);
    isFirst = false;
  }
  return state;
}

}  // namespace

ListState list_state(const std::string& output) {
  try {
    return read(nlohmann::json::parse(output));
  } catch (const nlohmann::json::exception&) {
    return {};
  } catch (const InputError&) {
    return {};
  }
}

std::string list_text(const ListState& state, Moment now) {
  if (state.isEditedByOthers)
    return "On, but not in force: another user or program has changed what is blocked. Switch the list off and on";
  if (!state.isInForce) return "On, but not in force: \"orvanectl status\" says why";
  if (state.suspendedNames == 0) return "On, and in force";
  return "On, but " + counted(state.suspendedNames, "name is", "names are") + " suspended" +
         (state.endsTogether ? "" : ", some of them") + " until " + local_text(state.suspendedUntil, now);
}

std::string edit_fault(int exitCode, const std::string& error) {
  std::string fault = message(error);
  return fault.empty() && exitCode != 0 ? "orvanectl ended with the code " + std::to_string(exitCode) : fault;
}

}  // namespace orvane

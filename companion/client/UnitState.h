#pragma once

#include <optional>
#include <string>

#include "companion/text/TimeText.h"

namespace orvane {

// The units of the package.
inline constexpr const char* kExtensionUnit = "orvane-se.service";
inline constexpr const char* kKeeperUnit = "orvane-keeper.service";

// What the service manager says of a service, in its own words (org.freedesktop.systemd1(5)).
struct UnitState {
  std::string load;    // "loaded"; "not-found" where there is no such unit
  std::string active;  // "active", "inactive", "failed", "activating" and so on
  std::string sub;     // "running", "dead", "auto-restart" and so on
  std::string status;  // what the service says of itself
  std::string result;  // of its last end: "success", "exit-code", "signal" and so on
  std::optional<Moment> since;
  uint32_t restarts = 0;
  bool isRunning() const { return active == "active"; }
};

// Nothing when no service manager answers, as in most containers.
std::optional<UnitState> unit_state(const std::string& unit);

}  // namespace orvane

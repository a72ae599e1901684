#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "companion/text/TimeText.h"

namespace orvane {

// The package's systemd units.
inline constexpr const char* kExtensionUnit = "orvane-se.service";
inline constexpr const char* kKeeperUnit = "orvane-keeper.service";
inline constexpr const char* kFetcherUnit = "orvane-fetcher.service";

// What the user must do to start the extension or the keeper, or can do about a lock, for messages.
extern const char* const kStartExtension;
extern const char* const kStartKeeper;
extern const char* const kEndLock;

// A unit's state as systemd reports it; the texts are properties of org.freedesktop.systemd1(5).
struct UnitState {
  std::string load;             // "loaded", "not-found" and so on
  std::string active;           // "active", "inactive", "failed", "activating" and so on
  std::string sub;              // "running", "dead", "auto-restart" and so on
  std::string status;           // the service's own status line (sd_notify(3)); empty if it is out of date
  uint64_t hiddenNames = 0;     // how many connections hid the host's name, as `status` says (ServiceStatus.h)
  std::string result;           // how the service last ended: "success", "exit-code", "signal" and so on
  std::optional<Moment> since;  // when the unit's state last changed
  uint32_t restarts = 0;
  bool isRunning() const { return active == "active"; }
  // Also true while systemd waits before it starts the service again.
  bool hasFailed() const { return active == "failed" || sub.starts_with("auto-restart"); }
  // "active (running)"; for a failed unit, with the result: "failed (exit-code)".
  std::string text() const { return active + " (" + (active == "failed" ? result : sub) + ')'; }
};

// Nothing if no service manager answers, as in most containers. Waits at most 3 seconds for an answer.
std::optional<UnitState> unit_state(const std::string& unit);

}  // namespace orvane

#include "companion/client/UnitState.h"

namespace orvane {

const char* const kStartExtension = "activate the extension and switch the filter on in the application OrvaneSE";
const char* const kStartKeeper = "switch the list on in the application OrvaneSE";
const char* const kEndLock = "wait";

// macOS has no systemd, and launchd has no interface that reports the state of a job.
std::optional<UnitState> unit_state(const std::string&) { return std::nullopt; }

}  // namespace orvane

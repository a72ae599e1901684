#pragma once

#include <string>

#include "companion/keeper/KeeperState.h"

namespace orvane {

// The state in the text format of Prometheus (version 0.0.4), which the textfile collector of its node exporter reads.
// docs/fleet.md describes the metrics. Every user of the machine may read them, so they have no digest of the machine's
// own list: with a digest, a user could test guesses of what is on the list.
std::string metrics_text(const KeeperState& state);

// The file with the metrics, in the folder of the state file.
std::string metrics_path(const std::string& statePath);

}  // namespace orvane

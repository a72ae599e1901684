#pragma once

#include <string>

#include "companion/keeper/KeeperState.h"

namespace orvane {

// The file metrics.prom in the folder of the keeper's state file. It has the state in the text format of Prometheus
// (version 0.0.4), which the textfile collector of its node exporter reads. docs/fleet.md describes the metrics. Every
// user of the machine may read them, so they have no digest of the machine's own list: with a digest, a user could test
// guesses of what is on the list.
class MetricsFile {
 public:
  explicit MetricsFile(const std::string& statePath);

  const std::string& path() const { return path_; }

  // Replaces the file if its text changes. Logs the first failure.
  void write(const KeeperState& state);

 private:
  const std::string path_;
  std::string text_;  // as last written
  bool isFaultLogged_ = false;
};

}  // namespace orvane

#pragma once

#include <string>

#include "companion/client/Client.h"

namespace orvane {

struct KeeperOptions {
  ClientOptions client;
  std::string listPath;
  std::string statePath;
  std::string guardPath;                       // the file in which a ListGuard outlives the keeper
  std::string dropInsPath, subscriptionsPath;  // the folders of read-only lists
};

// Keeps the extension's list equal to the file `listPath` and the read-only lists until SIGTERM, SIGINT or SIGHUP:
// sends the names after each start of the extension, after each change of a file, when a suspension ends, and when a
// schedule begins or ends. Enforces locks and delays (ListGuard.h). Waits for a missing file or extension. Returns the
// exit code, which is kFailed if another keeper uses the same state file. For single-threaded programs.
int run_keeper(const KeeperOptions& options);

}  // namespace orvane

#pragma once

#include <string>

#include "companion/client/Client.h"

namespace orvane {

struct KeeperOptions {
  ClientOptions client;
  std::string listPath;
  std::string statePath;
};

// Keeps the list in the extension until SIGTERM, SIGINT or SIGHUP: sends it after every start of the extension and
// after every change of the file, and has suspensions begin and end by the clock on the wall. What cannot be had now,
// the file, the extension or a place for the state, is waited for. Gives the exit code: 1 when another keeper writes
// the same state. For a program with one thread.
int run_keeper(const KeeperOptions& options);

}  // namespace orvane

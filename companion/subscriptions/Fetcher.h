#pragma once

#include <string>

#include "companion/subscriptions/Transfer.h"

namespace orvane {

struct FetcherOptions {
  std::string listFolder;  // the folder with the subscriptions' file and the requests; the fetcher only reads it
  std::string folder;      // the fetcher's own folder (FetcherState.h)
  TransferOptions transfer;
};

// Runs the service that keeps the subscriptions up to date, until SIGTERM or SIGINT. Returns the exit code. Throws
// FileError if its folder cannot be used.
int run_fetcher(const FetcherOptions& options);

}  // namespace orvane

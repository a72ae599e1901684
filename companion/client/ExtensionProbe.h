#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "companion/client/Client.h"

namespace orvane {

// Whether an extension runs and answers.
struct ExtensionProbe {
  bool answers = false;
  bool isUnresponsive = false;  // an extension runs, but accepts no connection or does not answer
  bool isAbsent = false;        // no extension runs
  uint64_t changes = 0;         // the extension's count of edits
  std::string error;            // why `answers` is false
};

// Takes at most a fraction of a second longer than `timeout`. Uses a CallTimeout, so the caller must have none.
ExtensionProbe probe_extension(const ClientOptions& options,
                               std::chrono::milliseconds timeout = std::chrono::seconds(3));

}  // namespace orvane

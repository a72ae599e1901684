#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "companion/client/Client.h"

namespace orvane {

// Whether an extension runs and answers.
struct ExtensionProbe {
  bool answers = false;
  bool isUnresponsive = false;  // it accepts connections but does not answer
  bool isAbsent = false;        // none runs
  uint64_t changes = 0;         // its count of edits
  std::string error;            // why it does not answer
};

// Returns within `timeout` and a fraction of a second. Uses a CallTimeout.
ExtensionProbe probe_extension(const ClientOptions& options,
                               std::chrono::milliseconds timeout = std::chrono::seconds(3));

}  // namespace orvane

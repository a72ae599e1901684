#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "companion/client/Client.h"

namespace orvane {

// Whether a running extension answers us, now.
struct ExtensionProbe {
  bool answers = false;
  bool isUnresponsive = false;  // it takes connections and answers nothing
  bool isAbsent = false;        // none runs
  uint64_t changes = 0;         // its counter
  std::string error;            // why there is no answer
};

// Takes no longer than the patience, and what CallTimeout takes.
ExtensionProbe probe_extension(const ClientOptions& options,
                               std::chrono::milliseconds patience = std::chrono::seconds(3));

}  // namespace orvane
